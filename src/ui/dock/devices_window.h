#pragma once

#include <QDialog>
#include <QPointer>

class QLabel;
class QPushButton;
class QTreeWidget;

namespace vantorelle {

class App;
class DeviceManager;
class ManageDialog;
class SetupWizard;

// The one way to a device: the account's devices and those set up on this computer, with how
// each can be reached, and from there setting one up, managing it over the cloud or managing the
// connected one. One window per purpose: opening a window that is open raises it.
class DevicesWindow : public QDialog
{
    Q_OBJECT

public:
    // Shows the one devices window, making it a child of `parent` (the dock, so that it goes
    // when the dock goes) the first time; a second call raises it.
    static DevicesWindow* open(App* app, QWidget* parent);

    explicit DevicesWindow(App* app, QWidget* parent = nullptr);

    // Reads the lists again: the account's from the portal while signed in, and this computer's.
    void refresh();

private:
    void fill();
    void follow();
    QString currentId() const;
    void useForLiveData();
    void openSetupWizard();
    void openManageDialog();
    void openDeviceManager();

    App* m_app;
    QTreeWidget* m_table = nullptr;
    QLabel* m_message = nullptr;
    QPushButton* m_refresh = nullptr;
    QPushButton* m_use = nullptr;
    QPushButton* m_manage = nullptr;
    QPushButton* m_connected = nullptr;
    QPointer<ManageDialog> m_manageDialog;
    QPointer<DeviceManager> m_deviceManager;
    QPointer<SetupWizard> m_wizard;
};

// The words for a route in lists: "Vantorelle cloud", "Local network", "USB cable", "Bluetooth".
QString routeName(int route);

} // namespace vantorelle
