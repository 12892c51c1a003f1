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

// Sets up one device step by step: connect (USB, local network or Bluetooth), sign in when the
// device asks for its password, the device's Wi-Fi, scoreboard controller and wireless link,
// live data on the local network, the cloud account, and finally hand the connection over to
// OBS's live data. One row of buttons (Back, Next, Finish, Cancel) drives every step.
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
    // While a connection attempt still waits, stops it and stays; otherwise closes the wizard.
    void cancel();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    // A page the wizard built for the connected device, and its name in the step title.
    struct Step
    {
        QWidget* page;
        QString title;
    };

    void openUsb(const QString& port);
    void openNetwork(const QString& host);
    void openBluetooth(const QString& address, const QString& name, const QString& passkey);
    void start(DeviceLink* link);
    void dropSession();
    void stopConnecting();
    void startOver();
    void backToConnection(const QString& failure);
    void followState(DeviceSession::State state, const QString& detail);
    void noteStatus(const QJsonObject& status);
    void buildDevicePages();
    QWidget* buildFinishPage();
    void clearDevicePages();
    void next();
    void back();
    void goTo(int step);
    void showPage(QWidget* page);
    void updateTitle();
    void updateButtons();
    QString finishSummary() const;
    QString deviceName() const;

    App* m_app;
    SetupWizardSettings m_settings;
    std::shared_ptr<DeviceSession> m_session;
    QString m_statusName;
    QLabel* m_title = nullptr;
    QStackedWidget* m_stack = nullptr;
    WizardConnectionPage* m_connection = nullptr;
    WizardSignInPage* m_signIn = nullptr;
    QList<Step> m_steps; // the pages once signed in, in order; the last one finishes
    int m_step = -1;
    // From Next on the connection page until the device is signed in, asks for its password
    // or fails: Cancel then stops the attempt instead of closing.
    bool m_connecting = false;
    bool m_signInShown = false; // the device asked for its password on this connection
    QPushButton* m_back = nullptr;
    QPushButton* m_next = nullptr;
    QPushButton* m_finish = nullptr;
    QPushButton* m_cancel = nullptr;
    QLabel* m_summary = nullptr;
    QLabel* m_finishMessage = nullptr;
};

} // namespace vantorelle
