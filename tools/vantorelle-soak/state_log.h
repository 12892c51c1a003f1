#pragma once

#include <QHash>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <deque>

namespace vantorelle::soak {

// Every distinct state one simulated device sent, in order, each under a key made of the sport
// and the text of every field the game sets, as the sharing server writes them. A client looks
// each snapshot up here to tell a change it missed from one that came out of order.
class StateLog
{
public:
    // Records the state an envelope carries at `sentAtMs`; a state equal to the last one is no
    // change and is not recorded.
    void record(const QJsonObject& envelope, qint64 sentAtMs);
    // The key of a sharing-server snapshot; empty when the snapshot lacks a field the game sets
    // (nothing followed yet, or the data was cleared).
    QString snapshotKey(const QJsonObject& snapshot) const;

    // Changes are numbered from 0 in the order they were sent.
    qint64 changeCount() const { return m_next; }
    qint64 lastIndex() const { return m_next - 1; }
    // The first change after `after` with this key; -1 when there is none.
    qint64 findAfter(const QString& key, qint64 after) const;
    // The latest change with this key; -1 when there is none (or it was forgotten).
    qint64 findLatest(const QString& key) const;
    // When change `index` was sent; -1 when it was forgotten.
    qint64 sentAtMs(qint64 index) const;
    // Forgets the changes before `index`, so that a day-long run holds a bounded log.
    void forgetBefore(qint64 index);

private:
    QString keyOf(const QString& sport, const QJsonObject& fields, bool fromSnapshot) const;

    QStringList m_fieldNames; // the game's fields, in the order keys are built
    QString m_lastKey;
    qint64 m_first = 0; // the index of the oldest change kept
    qint64 m_next = 0;
    std::deque<QString> m_keys;
    std::deque<qint64> m_sentAt;
    QHash<QString, std::deque<qint64>> m_indexes; // ascending, per key
};

} // namespace vantorelle::soak
