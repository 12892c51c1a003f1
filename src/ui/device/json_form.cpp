#include "json_form.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QSpinBox>

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
    if (value.isString())
        return new QLineEdit(value.toString());
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
    if (auto* combo = qobject_cast<const QComboBox*>(editor))
        return combo->currentText();
    if (auto* box = qobject_cast<const QCheckBox*>(editor))
        return box->isChecked();
    if (auto* spin = qobject_cast<const QSpinBox*>(editor))
        return spin->value();
    return qobject_cast<const QDoubleSpinBox*>(editor)->value();
}

} // namespace

JsonForm::JsonForm(const QString& editorPrefix, QWidget* parent)
    : QWidget(parent), m_prefix(editorPrefix)
{
    m_form = new QFormLayout(this);
    m_form->setContentsMargins(0, 0, 0, 0);
}

void JsonForm::addKnownKey(const QString& key, const QString& label, EditorMaker makeEditor)
{
    m_known.append({key, label, std::move(makeEditor)});
}

QString JsonForm::readableKey(const QString& key)
{
    QString text = key;
    text.replace(QLatin1Char('_'), QLatin1Char(' '));
    if (!text.isEmpty())
        text[0] = text[0].toUpper();
    return text;
}

void JsonForm::setValues(const QJsonObject& values)
{
    while (m_form->rowCount() > 0)
        m_form->removeRow(0);
    m_fields.clear();
    QJsonObject rest = values;
    for (const Known& known : std::as_const(m_known)) {
        if (!rest.contains(known.key))
            continue;
        if (QWidget* editor = known.makeEditor(rest.value(known.key))) {
            addField(known.key, known.label, editor);
            rest.remove(known.key);
        }
    }
    for (auto it = rest.begin(); it != rest.end(); ++it) {
        if (QWidget* editor = editorFor(it.value()))
            addField(it.key(), readableKey(it.key()), editor);
    }
}

void JsonForm::addField(const QString& key, const QString& label, QWidget* editor)
{
    editor->setObjectName(m_prefix + key);
    if (label.isEmpty()) {
        m_form->addRow(editor);
    } else {
        auto* name = new QLabel(label);
        name->setTextFormat(Qt::PlainText);
        name->setBuddy(editor);
        m_form->addRow(name, editor);
    }
    m_fields.append({key, editor, valueOf(editor)});
}

QJsonObject JsonForm::values() const
{
    QJsonObject values;
    for (const Field& field : m_fields)
        values.insert(field.key, valueOf(field.editor));
    return values;
}

QJsonObject JsonForm::changes() const
{
    QJsonObject changes;
    for (const Field& field : m_fields) {
        const QJsonValue now = valueOf(field.editor);
        if (now != field.shown)
            changes.insert(field.key, now);
    }
    return changes;
}

void JsonForm::markSaved(const QJsonObject& saved)
{
    for (Field& field : m_fields) {
        if (saved.contains(field.key))
            field.shown = saved.value(field.key);
    }
}

} // namespace vantorelle
