#include "device_manager.h"

#include "advanced_panel.h"
#include "app.h"
#include "cloud_panel.h"
#include "controller_panel.h"
#include "firmware_panel.h"
#include "panel_style.h"
#include "security_panel.h"
#include "settings_panel.h"
#include "status_panel.h"
#include "wifi_panel.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QTabWidget>
#include <QVBoxLayout>

namespace vantorelle {

using State = DeviceSession::State;

DeviceManager::DeviceManager(App* app, std::shared_ptr<DeviceSession> session, const QString& name,
                             QWidget* parent)
    : QDialog(parent), m_session(std::move(session))
{
    setObjectName(QStringLiteral("deviceManager"));
    setWindowTitle(QStringLiteral("Manage %1").arg(name));

    DeviceSession* driven = m_session.get();
    m_state = wrappedLabel(QStringLiteral("sessionState"));
    m_tabs = new QTabWidget;
    m_tabs->setObjectName(QStringLiteral("deviceManagerTabs"));
    if (driven->isReceiverMode()) {
        m_tabs->addTab(new AdvancedPanel(driven), QStringLiteral("Receiver"));
    } else {
        m_tabs->addTab(new StatusPanel(driven), QStringLiteral("Status"));
        m_tabs->addTab(new WifiPanel(driven), QStringLiteral("Wi-Fi"));
        m_tabs->addTab(new ControllerPanel(driven, &app->settings()), QStringLiteral("Scoreboard"));
        m_tabs->addTab(new SettingsPanel(driven), QStringLiteral("Settings"));
        m_tabs->addTab(new SecurityPanel(driven, &app->settings()), QStringLiteral("Security"));
        m_tabs->addTab(new FirmwarePanel(driven), QStringLiteral("Firmware"));
        m_tabs->addTab(new CloudPanel(app, driven), QStringLiteral("Cloud"));
        m_tabs->addTab(new AdvancedPanel(driven), QStringLiteral("Advanced"));
    }

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_state);
    layout->addWidget(m_tabs);
    layout->addWidget(buttons);

    resize(720, 640); // every tab's name in view
    connect(driven, &DeviceSession::stateChanged, this, &DeviceManager::followState);
    followState(driven->state(), driven->lastError());
}

DeviceManager::~DeviceManager()
{
    // The panels go before the session they point at.
    delete m_tabs;
}

// The panels only work on a signed-in device; say why they stopped when it goes.
void DeviceManager::followState(State state, const QString& detail)
{
    QString text;
    switch (state) {
    case State::Restarting:
        text = QStringLiteral("The device is restarting. Open the setup window from the dock to "
                              "connect again once it is back.");
        break;
    case State::Lost:
    case State::Error:
        text = detail.isEmpty() ? QStringLiteral("The connection to the device was lost") : detail;
        break;
    case State::Ready:
    case State::SigningIn: // a silent renewal of the sign-in
        break;
    default:
        text = QStringLiteral("The device is not signed in. Open the setup window from the dock "
                              "to sign in again.");
        break;
    }
    // A restart is expected and says so plainly; a lost or signed-out device is a failure.
    showMessage(m_state, text, !text.isEmpty() && state != State::Restarting);
}

} // namespace vantorelle
