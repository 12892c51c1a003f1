#include "settings_panel.h"

#include "json_form.h"

#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

SettingsPanel::SettingsPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "settingsPanel", QStringLiteral("Settings"), parent)
{
    QPushButton* reload = addAction(QStringLiteral("Reload"), "reloadSettings");
    body()->addWidget(reload);
    m_form = new JsonForm(QStringLiteral("setting_"));
    body()->addWidget(m_form);
    m_save = addAction(QStringLiteral("Save"), "saveSettings");
    m_save->setVisible(false); // nothing to save until the settings were read
    body()->addWidget(m_save);
    body()->addStretch();

    connect(reload, &QPushButton::clicked, this, &SettingsPanel::load);
    connect(m_save, &QPushButton::clicked, this, &SettingsPanel::save);
}

void SettingsPanel::load()
{
    ask(QStringLiteral("Reading the device's settings…"), &DeviceSession::getSettings,
        [this](const RpcResult& result) {
            if (!settle(result))
                return;
            m_form->setValues(result.result);
            m_save->setVisible(!m_form->isEmpty());
        });
}

void SettingsPanel::save()
{
    if (m_form->isEmpty())
        return;
    ask(
        QStringLiteral("Saving the settings…"),
        [changes = edited()](DeviceSession& session, DeviceSession::Done done) {
            session.setSettings(changes, done);
        },
        [this](const RpcResult& result) {
            settle(result, QStringLiteral("The device took the settings."));
        });
}

QJsonObject SettingsPanel::edited() const
{
    return m_form->values();
}

} // namespace vantorelle
