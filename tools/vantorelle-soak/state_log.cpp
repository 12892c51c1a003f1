#include "state_log.h"

#include <QJsonValue>

#include <algorithm>

namespace vantorelle::soak {

namespace {

// A field as the sharing server writes it: numbers without a fraction, booleans as words.
QString textOf(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QJsonValue::Double: {
        const double number = value.toDouble();
        const qint64 whole = qint64(number);
        return double(whole) == number ? QString::number(whole) : QString::number(number, 'g', 6);
    }
    case QJsonValue::String:
        return value.toString();
    default:
        return {};
    }
}

constexpr QChar kSeparator = QChar(0x1f);

} // namespace

QString StateLog::keyOf(const QString& sport, const QJsonObject& fields, bool fromSnapshot) const
{
    QString key = sport;
    for (const QString& name : m_fieldNames) {
        const QJsonValue value = fields.value(name);
        if (fromSnapshot && !value.isString())
            return {};
        key += kSeparator + (fromSnapshot ? value.toString() : textOf(value));
    }
    return key;
}

void StateLog::record(const QJsonObject& envelope, qint64 sentAtMs)
{
    const QJsonObject fields = envelope.value(QLatin1String("fields")).toObject();
    m_fieldNames = fields.keys();
    const QString key = keyOf(envelope.value(QLatin1String("sport")).toString(), fields, false);
    if (key == m_lastKey)
        return;
    m_lastKey = key;
    m_keys.push_back(key);
    m_sentAt.push_back(sentAtMs);
    m_indexes[key].push_back(m_next++);
}

QString StateLog::snapshotKey(const QJsonObject& snapshot) const
{
    if (m_fieldNames.isEmpty())
        return {};
    return keyOf(snapshot.value(QLatin1String("sport")).toString(),
                 snapshot.value(QLatin1String("fields")).toObject(), true);
}

qint64 StateLog::findAfter(const QString& key, qint64 after) const
{
    const auto found = m_indexes.constFind(key);
    if (found == m_indexes.constEnd())
        return -1;
    const auto next = std::upper_bound(found->begin(), found->end(), after);
    return next == found->end() ? -1 : *next;
}

qint64 StateLog::findLatest(const QString& key) const
{
    const auto found = m_indexes.constFind(key);
    return found == m_indexes.constEnd() || found->empty() ? -1 : found->back();
}

qint64 StateLog::sentAtMs(qint64 index) const
{
    if (index < m_first || index >= m_next)
        return -1;
    return m_sentAt[std::size_t(index - m_first)];
}

void StateLog::forgetBefore(qint64 index)
{
    while (m_first < index && !m_keys.empty()) {
        const auto found = m_indexes.find(m_keys.front());
        // Indexes of a key ascend, so the oldest change is the first of its key.
        if (found != m_indexes.end()) {
            found->pop_front();
            if (found->empty())
                m_indexes.erase(found);
        }
        m_keys.pop_front();
        m_sentAt.pop_front();
        ++m_first;
    }
}

} // namespace vantorelle::soak
