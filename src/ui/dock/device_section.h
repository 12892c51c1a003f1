#pragma once

#include <QPointer>
#include <QWidget>

class QComboBox;
class QLabel;
class QPushButton;

namespace vantorelle {

class App;
class DeviceManager;
class ManageDialog;
class SetupWizard;

// Chooses the live-data device (the account's devices and those known only on the local network)
// and how its data travels, and opens the cloud management of an account device.
class DeviceSection : public QWidget
{
    Q_OBJECT

public:
    explicit DeviceSection(App* app, QWidget* parent = nullptr);

private:
    void refresh();
    void followSelection();
    void showRoutes();
    void chooseDevice(int index);
    void chooseRoute(int index);
    void openManageDialog();
    void openSetupWizard();
    void openDeviceManager();
    QString currentId() const;

    App* m_app;
    QComboBox* m_devices = nullptr;
    QLabel* m_routeLabel = nullptr;
    QComboBox* m_route = nullptr;
    QLabel* m_error = nullptr;
    QPushButton* m_manage = nullptr;
    QPushButton* m_setup = nullptr;
    // Shown while live data comes through a device session (a device set up over USB).
    QPushButton* m_connected = nullptr;
    // One window per purpose: a second click raises the open one.
    QPointer<ManageDialog> m_manageDialog;
    QPointer<DeviceManager> m_deviceManager;
    QPointer<SetupWizard> m_wizard;
};

} // namespace vantorelle
