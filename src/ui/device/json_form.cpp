#include "json_form.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
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

void JsonForm::setValues(const QJsonObject& values)
{
    while (m_form->rowCount() > 0)
        m_form->removeRow(0);
    m_fields.clear();
    for (auto it = values.begin(); it != values.end(); ++it) {
        QWidget* editor = editorFor(it.value());
        if (!editor)
            continue;
        editor->setObjectName(m_prefix + it.key());
        m_form->addRow(it.key(), editor);
        m_fields.append({it.key(), editor});
    }
}

QJsonObject JsonForm::values() const
{
    QJsonObject values;
    for (const Field& field : m_fields)
        values.insert(field.key, valueOf(field.editor));
    return values;
}

} // namespace vantorelle
