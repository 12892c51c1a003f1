#include "device_manager.h"

#include "advanced_panel.h"
#include "controller_panel.h"
#include "settings_panel.h"
#include "status_panel.h"
#include "wifi_panel.h"

#include <QDialogButtonBox>
#include <QTabWidget>
#include <QVBoxLayout>

namespace vantorelle {

DeviceManager::DeviceManager(std::shared_ptr<DeviceSession> session, const QString& name,
                             QWidget* parent)
    : QDialog(parent), m_session(std::move(session))
{
    setObjectName(QStringLiteral("deviceManager"));
    setWindowTitle(QStringLiteral("Manage %1").arg(name));

    DeviceSession* driven = m_session.get();
    m_tabs = new QTabWidget;
    m_tabs->setObjectName(QStringLiteral("deviceManagerTabs"));
    m_tabs->addTab(new StatusPanel(driven), QStringLiteral("Status"));
    m_tabs->addTab(new WifiPanel(driven), QStringLiteral("Wi-Fi"));
    m_tabs->addTab(new ControllerPanel(driven), QStringLiteral("Scoreboard"));
    m_tabs->addTab(new SettingsPanel(driven), QStringLiteral("Settings"));
    m_tabs->addTab(new AdvancedPanel(driven), QStringLiteral("Advanced"));

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_tabs);
    layout->addWidget(buttons);
}

DeviceManager::~DeviceManager()
{
    // The panels go before the session they point at.
    delete m_tabs;
}

} // namespace vantorelle
