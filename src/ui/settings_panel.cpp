#include "settings_panel.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include <cmath>
#include <limits>

namespace vantorelle {

namespace {

bool isWholeNumber(double value)
{
    return std::floor(value) == value && value >= std::numeric_limits<int>::min() &&
           value <= std::numeric_limits<int>::max();
}

// An editor for one plain value; nullptr for nested objects, arrays and nulls.
QWidget* editorFor(const QJsonValue& value)
{
    if (value.isString()) {
        auto* edit = new QLineEdit(value.toString());
        return edit;
    }
    if (value.isBool()) {
        auto* box = new QCheckBox;
        box->setChecked(value.toBool());
        return box;
    }
    if (!value.isDouble())
        return nullptr;
    if (isWholeNumber(value.toDouble())) {
        auto* spin = new QSpinBox;
        spin->setRange(std::numeric_limits<int>::min(), std::numeric_limits<int>::max());
        spin->setValue(value.toInt());
        return spin;
    }
    auto* spin = new QDoubleSpinBox;
    spin->setDecimals(6);
    spin->setRange(-std::numeric_limits<double>::max(), std::numeric_limits<double>::max());
    spin->setValue(value.toDouble());
    return spin;
}

QJsonValue valueOf(const QWidget* editor)
{
    if (auto* edit = qobject_cast<const QLineEdit*>(editor))
        return edit->text();
    if (auto* box = qobject_cast<const QCheckBox*>(editor))
        return box->isChecked();
    if (auto* spin = qobject_cast<const QSpinBox*>(editor))
        return spin->value();
    return qobject_cast<const QDoubleSpinBox*>(editor)->value();
}

} // namespace

SettingsPanel::SettingsPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "settingsPanel", QStringLiteral("Settings"), parent)
{
    QPushButton* reload = addAction(QStringLiteral("Reload"), "reloadSettings");
    body()->addWidget(reload);
    m_form = new QFormLayout;
    body()->addLayout(m_form);
    m_save = addAction(QStringLiteral("Save"), "saveSettings");
    m_save->setVisible(false); // nothing to save until the settings were read
    body()->addWidget(m_save);
    body()->addStretch();

    connect(reload, &QPushButton::clicked, this, &SettingsPanel::load);
    connect(m_save, &QPushButton::clicked, this, &SettingsPanel::save);
}

void SettingsPanel::load()
{
    if (!sessionReady() || isBusy())
        return;
    begin(QStringLiteral("Reading the device's settings…"));
    session()->request(QStringLiteral("getSettings"), {}, session()->settings().requestTimeoutMs,
                       guarded([this](const RpcResult& result) {
                           if (settle(result))
                               showSettings(result.result);
                       }));
}

void SettingsPanel::save()
{
    if (!sessionReady() || isBusy() || m_fields.isEmpty())
        return;
    begin(QStringLiteral("Saving the settings…"));
    session()->request(QStringLiteral("setSettings"), edited(),
                       session()->settings().requestTimeoutMs,
                       guarded([this](const RpcResult& result) {
                           settle(result, QStringLiteral("The device took the settings."));
                       }));
}

QJsonObject SettingsPanel::edited() const
{
    QJsonObject values;
    for (const Field& field : m_fields)
        values.insert(field.key, valueOf(field.editor));
    return values;
}

void SettingsPanel::showSettings(const QJsonObject& settings)
{
    clearFields();
    for (auto it = settings.begin(); it != settings.end(); ++it) {
        QWidget* editor = editorFor(it.value());
        if (!editor)
            continue;
        editor->setObjectName(QStringLiteral("setting_%1").arg(it.key()));
        m_form->addRow(it.key(), editor);
        m_fields.append({it.key(), editor});
    }
    m_save->setVisible(!m_fields.isEmpty());
}

void SettingsPanel::clearFields()
{
    while (m_form->rowCount() > 0)
        m_form->removeRow(0);
    m_fields.clear();
}

} // namespace vantorelle
