#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QStringList>

namespace vantorelle {

// The scoreboard's current state: sport, named text fields, where the data comes from and when
// it last arrived. Safe to use from any thread; signals are emitted after the lock is released.
class LiveData : public QObject
{
    Q_OBJECT

public:
    explicit LiveData(QObject* parent = nullptr);

    // Applies one feed envelope (a partial update). Returns false for an empty envelope or an
    // unknown "type"; such an envelope changes nothing.
    bool apply(const QJsonObject& envelope);
    void clear();

    QStringList fieldNames() const;
    QString value(const QString& name) const;
    // Every field at once, by name.
    QMap<QString, QString> fields() const;
    QString sport() const;
    QString source() const;
    QDateTime updatedAt() const;
    void setSource(const QString& text);

    // Snapshot object: sport, fields, source, updated_at.
    QJsonObject toJson() const;
    // The same snapshot as one compact JSON line ending in "\n", keys in the order
    // sport, fields, source, updated_at.
    QByteArray toJsonLine() const;

    // The text a JSON value is stored as (numbers without needless fraction or exponent).
    static QString valueText(const QJsonValue& value);

Q_SIGNALS:
    void changed();
    void fieldsChanged(const QStringList& names);
    void sourceChanged();

private:
    mutable QMutex m_mutex;
    QString m_sport;
    QMap<QString, QString> m_fields;
    // Each field's value as it last arrived, to recognise an unchanged one cheaply.
    QHash<QString, QJsonValue> m_raw;
    QString m_source;
    QDateTime m_updatedAt;
};

// The snapshot of `fields` as one compact JSON line ending in "\n", keys in the order sport,
// fields, source, updated_at (ISO 8601 UTC with milliseconds, empty when never updated).
QByteArray snapshotLine(const QString& sport, const QMap<QString, QString>& fields,
                        const QString& source, const QDateTime& updatedAt);

} // namespace vantorelle
