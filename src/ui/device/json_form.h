#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QWidget>

#include <functional>

class QFormLayout;

namespace vantorelle {

// A JSON object's plain values as an editable list. Keys the caller knows get their own label
// and editor; any other value is edited by its JSON type (text in a line edit, whole numbers in a
// spin box, other numbers in a decimal spin box, switches in a check box) under its key made
// readable. Nested objects, arrays and nulls are not shown and never given back. Each editor is
// named after its key with a prefix. Labels are plain text: keys come from the device.
class JsonForm : public QWidget
{
    Q_OBJECT

public:
    // Makes the editor for a known key's value, or returns nullptr when the value is not of the
    // kind it edits (the value then gets the editor of its JSON type).
    using EditorMaker = std::function<QWidget*(const QJsonValue& value)>;

    explicit JsonForm(const QString& editorPrefix, QWidget* parent = nullptr);

    // A known key, shown before the others in the order they were added. An empty `label` leaves
    // the row to the editor alone (a check box carries its own sentence).
    void addKnownKey(const QString& key, const QString& label, EditorMaker makeEditor);

    void setValues(const QJsonObject& values);
    // The values as currently edited, one member per shown value.
    QJsonObject values() const;
    // Only the values edited since they were shown or last saved.
    QJsonObject changes() const;
    // `saved` reached the device: edits of them no longer count as changes.
    void markSaved(const QJsonObject& saved);
    bool isEmpty() const { return m_fields.isEmpty(); }

    // "auto_dim" as "Auto dim".
    static QString readableKey(const QString& key);

private:
    struct Known
    {
        QString key;
        QString label;
        EditorMaker makeEditor;
    };
    struct Field
    {
        QString key;
        QWidget* editor = nullptr;
        QJsonValue shown; // what the editor held before the user touched it
    };

    void addField(const QString& key, const QString& label, QWidget* editor);

    QString m_prefix;
    QFormLayout* m_form = nullptr;
    QList<Known> m_known;
    QList<Field> m_fields;
};

} // namespace vantorelle
