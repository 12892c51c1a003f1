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
#include "ui_text.h"
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
    setWindowTitle(uiText("Device.Title").arg(name));

    DeviceSession* driven = m_session.get();
    m_state = wrappedLabel(QStringLiteral("sessionState"));
    m_tabs = new QTabWidget;
    m_tabs->setObjectName(QStringLiteral("deviceManagerTabs"));
    if (driven->isReceiverMode()) {
        m_tabs->addTab(new AdvancedPanel(driven), uiText("Device.Tab.Receiver"));
    } else {
        m_tabs->addTab(new StatusPanel(driven), uiText("Device.Tab.Status"));
        m_tabs->addTab(new WifiPanel(driven), uiText("Device.Tab.Wifi"));
        m_tabs->addTab(new ControllerPanel(driven, &app->settings()),
                       uiText("Device.Tab.Scoreboard"));
        m_tabs->addTab(new SettingsPanel(driven), uiText("Device.Tab.Settings"));
        m_tabs->addTab(new SecurityPanel(driven, &app->settings()), uiText("Device.Tab.Security"));
        m_tabs->addTab(new FirmwarePanel(driven), uiText("Device.Tab.Firmware"));
        m_tabs->addTab(new CloudPanel(app, driven), uiText("Device.Tab.Cloud"));
        m_tabs->addTab(new AdvancedPanel(driven), uiText("Device.Tab.Advanced"));
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
        text = uiText("Device.Restarting");
        break;
    case State::Lost:
    case State::Error:
        text = detail.isEmpty() ? uiText("Device.ConnectionLost") : detail;
        break;
    case State::Ready:
    case State::SigningIn: // a silent renewal of the sign-in
        break;
    default:
        text = uiText("Device.NotSignedIn");
        break;
    }
    // A restart is expected and says so plainly; a lost or signed-out device is a failure.
    showMessage(m_state, text, !text.isEmpty() && state != State::Restarting);
}

} // namespace vantorelle
