#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QWidget>

class QFormLayout;

namespace vantorelle {

// A JSON object's plain values as an editable list: text in line edits, whole numbers in spin
// boxes, other numbers in decimal spin boxes, switches in check boxes. Nested objects, arrays and
// nulls are not shown and never given back. Each editor is named after its key with a prefix.
class JsonForm : public QWidget
{
    Q_OBJECT

public:
    explicit JsonForm(const QString& editorPrefix, QWidget* parent = nullptr);

    void setValues(const QJsonObject& values);
    // The values as currently edited, one member per shown value.
    QJsonObject values() const;
    bool isEmpty() const { return m_fields.isEmpty(); }

private:
    struct Field
    {
        QString key;
        QWidget* editor = nullptr;
    };

    QString m_prefix;
    QFormLayout* m_form = nullptr;
    QList<Field> m_fields;
};

} // namespace vantorelle
