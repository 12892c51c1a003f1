#pragma once

#include "device_session.h"
#include "usb_link.h"
#include "wizard_connection_page.h"

#include <QDialog>
#include <QList>
#include <QString>

#include <memory>

class QLabel;
class QPushButton;
class QStackedWidget;

namespace vantorelle {

class App;
class WizardSignInPage;

// What the wizard waits on and where it finds USB ports; tests shrink the times and list the
// ports they made.
struct SetupWizardSettings
{
    WizardConnectionPage::PortLister listPorts; // empty: the system's serial ports
    UsbLinkSettings usb;
    DeviceSessionSettings session;
    int probeTimeoutMs = 8000;            // a network device's first answer
    BleHelperBridge* bluetooth = nullptr; // null: the plug-in's bridge
};

// Sets up one device step by step: connect (USB or local network), sign in, the device's Wi-Fi,
// scoreboard controller and wireless link, live data on the local network, the cloud account,
// and finally hand the connection over to OBS's live data.
class SetupWizard : public QDialog
{
    Q_OBJECT

public:
    explicit SetupWizard(App* app, const SetupWizardSettings& settings = {},
                         QWidget* parent = nullptr);
    ~SetupWizard() override;

    std::shared_ptr<DeviceSession> session() const { return m_session; }
    QWidget* currentPage() const;
    // Hands the open session to the live data; the wizard then closes.
    void finish();

private:
    void openUsb(const QString& port);
    void openNetwork(const QString& host);
    void openBluetooth(const QString& address, const QString& name, const QString& passkey);
    void start(DeviceLink* link);
    void dropSession();
    void startOver();
    void followState(DeviceSession::State state, const QString& detail);
    void noteStatus(const QJsonObject& status);
    void buildDevicePages();
    QWidget* buildFinishPage();
    void clearDevicePages();
    void goTo(int step);
    QString deviceName() const;

    App* m_app;
    SetupWizardSettings m_settings;
    std::shared_ptr<DeviceSession> m_session;
    QString m_statusName;
    QStackedWidget* m_stack = nullptr;
    WizardConnectionPage* m_connection = nullptr;
    WizardSignInPage* m_signIn = nullptr;
    QList<QWidget*> m_steps; // the pages once signed in, in order
    int m_step = -1;
    QWidget* m_navigation = nullptr;
    QPushButton* m_back = nullptr;
    QPushButton* m_next = nullptr;
    QLabel* m_finishMessage = nullptr;
};

} // namespace vantorelle
