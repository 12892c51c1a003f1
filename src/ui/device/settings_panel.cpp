#include "settings_panel.h"

#include "json_form.h"
#include "ui_text.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTimeZone>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

QWidget* nameEditor(const QJsonValue& value)
{
    return value.isString() ? new QLineEdit(value.toString()) : nullptr;
}

// The system's zones to pick from; the device may know one this computer does not, and keeps it.
QWidget* timeZoneEditor(const QJsonValue& value)
{
    if (!value.isString())
        return nullptr;
    auto* combo = new QComboBox;
    combo->setEditable(true);
    combo->setInsertPolicy(QComboBox::NoInsert);
    for (const QByteArray& id : QTimeZone::availableTimeZoneIds()) {
        const QString zone = QString::fromLatin1(id);
        combo->addItem(zone, zone);
    }
    const QString zone = value.toString();
    if (combo->findData(zone) < 0)
        combo->insertItem(0, zone, zone);
    combo->setCurrentIndex(combo->findData(zone));
    return combo;
}

QWidget* brightnessEditor(const QJsonValue& value)
{
    if (!value.isDouble())
        return nullptr;
    auto* spin = new QSpinBox;
    spin->setRange(0, 100);
    spin->setSuffix(uiText("Device.Settings.PercentSuffix"));
    spin->setValue(qRound(value.toDouble()));
    return spin;
}

JsonForm::EditorMaker switchEditor(const QString& sentence)
{
    return [sentence](const QJsonValue& value) -> QWidget* {
        if (!value.isBool())
            return nullptr;
        auto* box = new QCheckBox(sentence);
        box->setChecked(value.toBool());
        return box;
    };
}

} // namespace

SettingsPanel::SettingsPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "settingsPanel", uiText("Device.Settings.Title"), parent)
{
    QPushButton* reload = addAction(uiText("Device.Settings.Reload"), "reloadSettings");
    body()->addWidget(reload);
    m_form = new JsonForm(QStringLiteral("setting_"));
    m_form->addKnownKey(QStringLiteral("device_name"), uiText("Device.Settings.DeviceName"),
                        nameEditor);
    m_form->addKnownKey(QStringLiteral("timezone"), uiText("Device.Settings.TimeZone"),
                        timeZoneEditor);
    m_form->addKnownKey(QStringLiteral("brightness"), uiText("Device.Settings.Brightness"),
                        brightnessEditor);
    m_form->addKnownKey(QStringLiteral("auto_update"), {},
                        switchEditor(uiText("Device.Settings.AutoUpdate")));
    m_form->addKnownKey(QStringLiteral("cloud_enabled"), {},
                        switchEditor(uiText("Device.Settings.CloudEnabled")));
    body()->addWidget(m_form);
    m_save = addAction(uiText("Device.Settings.Save"), "saveSettings");
    m_save->setVisible(false); // nothing to save until the settings were read
    body()->addWidget(m_save);
    body()->addStretch();

    connect(reload, &QPushButton::clicked, this, &SettingsPanel::load);
    connect(m_save, &QPushButton::clicked, this, &SettingsPanel::save);
}

void SettingsPanel::load()
{
    ask(uiText("Device.Settings.Reading"), &DeviceSession::getSettings,
        [this](const RpcResult& result) {
            if (!settle(result))
                return;
            m_form->setValues(result.result);
            m_save->setVisible(!m_form->isEmpty());
        });
}

void SettingsPanel::save()
{
    if (m_form->isEmpty() || !canStart())
        return;
    const QJsonObject changed = changes();
    if (changed.isEmpty())
        return succeed(uiText("Device.Settings.NothingChanged"));
    ask(
        uiText("Device.Settings.Saving"),
        [changed](DeviceSession& session, DeviceSession::Done done) {
            session.setSettings(changed, done);
        },
        [this, changed](const RpcResult& result) {
            if (settle(result, uiText("Device.Settings.Saved")))
                m_form->markSaved(changed);
        });
}

QJsonObject SettingsPanel::changes() const
{
    return m_form->changes();
}

} // namespace vantorelle
