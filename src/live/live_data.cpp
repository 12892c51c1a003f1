#include "live_data.h"

#include <QMutexLocker>

#include <array>
#include <cmath>

namespace vantorelle {

namespace {

// Envelope keys that describe the message, never the scoreboard.
constexpr std::array<QLatin1StringView, 9> kMetaKeys = {
    QLatin1StringView("type"),         QLatin1StringView("seq"),
    QLatin1StringView("ts_ms"),        QLatin1StringView("v"),
    QLatin1StringView("sport"),        QLatin1StringView("online"),
    QLatin1StringView("device_ts_ms"), QLatin1StringView("fw_version"),
    QLatin1StringView("transport")};

bool isMetaKey(const QString& key)
{
    for (const auto& meta : kMetaKeys) {
        if (key == meta)
            return true;
    }
    return false;
}

bool isAcceptedType(const QString& type)
{
    return type.isEmpty() || type == QLatin1String("state") || type == QLatin1String("heartbeat") ||
           type == QLatin1String("auth_ok");
}

void appendEscaped(QByteArray& out, char16_t c)
{
    static const char hex[] = "0123456789abcdef";
    switch (c) {
    case u'"':
        out.append("\\\"");
        return;
    case u'\\':
        out.append("\\\\");
        return;
    case u'\n':
        out.append("\\n");
        return;
    case u'\r':
        out.append("\\r");
        return;
    case u'\t':
        out.append("\\t");
        return;
    case u'\b':
        out.append("\\b");
        return;
    case u'\f':
        out.append("\\f");
        return;
    default:
        out.append("\\u");
        for (int shift = 12; shift >= 0; shift -= 4)
            out.append(hex[(c >> shift) & 0xf]);
    }
}

// Writes `text` as a JSON string. Runs of plain characters go out as UTF-8 in one piece; quotes,
// backslashes, control characters and lone surrogates (which UTF-8 cannot carry) are escaped,
// so the line reads back as exactly the text that was stored.
void appendJsonString(QByteArray& out, QStringView text)
{
    out.append('"');
    qsizetype run = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (QChar::isHighSurrogate(c) && i + 1 < text.size() &&
            QChar::isLowSurrogate(text[i + 1].unicode())) {
            ++i;
            continue;
        }
        if (c >= 0x20 && c != u'"' && c != u'\\' && !QChar::isSurrogate(c))
            continue;
        out.append(text.mid(run, i - run).toUtf8());
        appendEscaped(out, c);
        run = i + 1;
    }
    out.append(text.mid(run).toUtf8());
    out.append('"');
}

} // namespace

LiveData::LiveData(QObject* parent) : QObject(parent) {}

QString LiveData::valueText(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QJsonValue::Double: {
        const double d = value.toDouble();
        if (std::isfinite(d) && d == std::trunc(d))
            return d == 0 ? QStringLiteral("0") : QString::number(d, 'f', 0);
        return QString::number(d, 'g', 6);
    }
    case QJsonValue::String:
        return value.toString();
    default:
        return {};
    }
}

bool LiveData::apply(const QJsonObject& envelope)
{
    if (envelope.isEmpty())
        return false;
    const QString type = envelope.value(QLatin1String("type")).toString();
    if (!isAcceptedType(type))
        return false;

    const QJsonValue fieldsValue = envelope.value(QLatin1String("fields"));
    const QJsonValue dataValue = envelope.value(QLatin1String("data"));
    const QJsonObject& fields = fieldsValue.isObject() ? fieldsValue.toObject()
                                : dataValue.isObject() ? dataValue.toObject()
                                                       : envelope;
    const QString sport = envelope.value(QLatin1String("sport")).toString();

    QStringList changedNames;
    bool sportChanged = false;
    {
        QMutexLocker lock(&m_mutex);
        if (!sport.isEmpty() && sport != m_sport) {
            m_sport = sport;
            sportChanged = true;
        }
        // QJsonObject iterates in ascending key order. A value as it arrived is kept beside its
        // text: an unchanged value (the common case: a clock that stands, heartbeats) is found by
        // one hash lookup and compared as it is, without formatting a number or searching the
        // ordered map. Meta keys are never kept, so a kept key needs no meta check.
        for (auto it = fields.constBegin(); it != fields.constEnd(); ++it) {
            const QString key = it.key();
            const QJsonValue v = it.value();
            const auto raw = m_raw.constFind(key);
            if (raw != m_raw.constEnd() && *raw == v)
                continue;
            if (isMetaKey(key) || v.isObject() || v.isArray())
                continue;
            m_raw.insert(key, v);
            const QString text = valueText(v);
            auto stored = m_fields.find(key);
            if (stored == m_fields.end()) {
                m_fields.insert(key, text);
            } else if (*stored != text) {
                *stored = text; // 2 and 2.0 differ as they arrive, not as text
            } else {
                continue;
            }
            changedNames.append(key);
        }
        m_updatedAt = QDateTime::currentDateTimeUtc();
    }

    if (!changedNames.isEmpty())
        Q_EMIT fieldsChanged(changedNames);
    if (!changedNames.isEmpty() || sportChanged)
        Q_EMIT changed();
    return true;
}

void LiveData::clear()
{
    {
        QMutexLocker lock(&m_mutex);
        if (m_fields.isEmpty() && m_sport.isEmpty())
            return;
        m_fields.clear();
        m_raw.clear();
        m_sport.clear();
        m_updatedAt = {};
    }
    Q_EMIT fieldsChanged({});
    Q_EMIT changed();
}

QStringList LiveData::fieldNames() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.keys();
}

QString LiveData::value(const QString& name) const
{
    QMutexLocker lock(&m_mutex);
    return m_fields.value(name);
}

QString LiveData::sport() const
{
    QMutexLocker lock(&m_mutex);
    return m_sport;
}

QString LiveData::source() const
{
    QMutexLocker lock(&m_mutex);
    return m_source;
}

QDateTime LiveData::updatedAt() const
{
    QMutexLocker lock(&m_mutex);
    return m_updatedAt;
}

void LiveData::setSource(const QString& text)
{
    {
        QMutexLocker lock(&m_mutex);
        if (m_source == text)
            return;
        m_source = text;
    }
    Q_EMIT sourceChanged();
}

namespace {

QString updatedAtText(const QDateTime& updatedAt)
{
    return updatedAt.isValid() ? updatedAt.toUTC().toString(Qt::ISODateWithMs) : QString();
}

QJsonObject snapshotObject(const QString& sport, const QMap<QString, QString>& fields,
                           const QString& source, const QDateTime& updatedAt)
{
    QJsonObject fieldObject;
    for (auto it = fields.constBegin(); it != fields.constEnd(); ++it)
        fieldObject.insert(it.key(), it.value());
    return {{QStringLiteral("sport"), sport},
            {QStringLiteral("fields"), fieldObject},
            {QStringLiteral("source"), source},
            {QStringLiteral("updated_at"), updatedAtText(updatedAt)}};
}

} // namespace

QMap<QString, QString> LiveData::fields() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields;
}

QJsonObject LiveData::toJson() const
{
    QMutexLocker lock(&m_mutex);
    return snapshotObject(m_sport, m_fields, m_source, m_updatedAt);
}

QByteArray LiveData::toJsonLine() const
{
    QMutexLocker lock(&m_mutex);
    return snapshotLine(m_sport, m_fields, m_source, m_updatedAt);
}

QByteArray snapshotLine(const QString& sport, const QMap<QString, QString>& fields,
                        const QString& source, const QDateTime& updatedAt)
{
    QByteArray out;
    out.reserve(64 + fields.size() * 32);
    out.append("{\"sport\":");
    appendJsonString(out, sport);
    out.append(",\"fields\":{");
    for (auto it = fields.constBegin(); it != fields.constEnd(); ++it) {
        if (it != fields.constBegin())
            out.append(',');
        appendJsonString(out, it.key());
        out.append(':');
        appendJsonString(out, it.value());
    }
    out.append("},\"source\":");
    appendJsonString(out, source);
    out.append(",\"updated_at\":");
    appendJsonString(out, updatedAtText(updatedAt));
    out.append("}\n");
    return out;
}

} // namespace vantorelle
