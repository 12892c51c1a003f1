#include "field_overlay.h"

#include "live_data.h"

#include <QMutexLocker>
#include <QRegularExpression>

#include <algorithm>

namespace vantorelle {

FieldOverlay::FieldOverlay(LiveData* device, QObject* parent) : QObject(parent), m_device(device)
{
    m_shown = device->fields();
    m_shownSport = device->sport();
    // Direct: the device's data may arrive on any thread, and outputs follow on the same one.
    connect(device, &LiveData::changed, this, &FieldOverlay::refresh, Qt::DirectConnection);
}

bool FieldOverlay::isValidName(const QString& name)
{
    static const QRegularExpression valid(QStringLiteral("\\A[A-Za-z0-9_]{1,64}\\z"));
    return valid.match(name).hasMatch();
}

bool FieldOverlay::acceptable(const QMap<QString, QString>& map, const QString& name,
                              const QString& value)
{
    return isValidName(name) && value.size() <= MaxValueChars &&
           (map.contains(name) || map.size() < MaxFields);
}

bool FieldOverlay::edit(QMap<QString, QString>& map, const QString& name, const QString* value)
{
    {
        QMutexLocker lock(&m_mutex);
        if (value) {
            if (!acceptable(map, name, *value))
                return false;
            if (const auto it = map.constFind(name); it != map.constEnd() && *it == *value)
                return true;
            map.insert(name, *value);
        } else if (map.remove(name) == 0) {
            return true;
        }
    }
    Q_EMIT operatorChanged();
    refresh();
    return true;
}

bool FieldOverlay::setField(const QString& name, const QString& value)
{
    return edit(m_fields, name, &value);
}

void FieldOverlay::removeField(const QString& name)
{
    edit(m_fields, name, nullptr);
}

QMap<QString, QString> FieldOverlay::operatorFields() const
{
    QMutexLocker lock(&m_mutex);
    return m_fields;
}

bool FieldOverlay::hold(const QString& name, const QString& value)
{
    return edit(m_holds, name, &value);
}

void FieldOverlay::release(const QString& name)
{
    edit(m_holds, name, nullptr);
}

void FieldOverlay::releaseAll()
{
    {
        QMutexLocker lock(&m_mutex);
        if (m_holds.isEmpty())
            return;
        m_holds.clear();
    }
    Q_EMIT operatorChanged();
    refresh();
}

QMap<QString, QString> FieldOverlay::holds() const
{
    QMutexLocker lock(&m_mutex);
    return m_holds;
}

bool FieldOverlay::isHeld(const QString& name) const
{
    QMutexLocker lock(&m_mutex);
    return m_holds.contains(name);
}

void FieldOverlay::restore(const QMap<QString, QString>& fields,
                           const QMap<QString, QString>& holds)
{
    auto keepAcceptable = [](const QMap<QString, QString>& from) {
        QMap<QString, QString> kept;
        for (auto it = from.constBegin(); it != from.constEnd(); ++it) {
            if (acceptable(kept, it.key(), it.value()))
                kept.insert(it.key(), it.value());
        }
        return kept;
    };
    {
        QMutexLocker lock(&m_mutex);
        m_fields = keepAcceptable(fields);
        m_holds = keepAcceptable(holds);
    }
    refresh();
}

QMap<QString, QString> FieldOverlay::merge(QMap<QString, QString> device) const
{
    for (auto it = m_fields.constBegin(); it != m_fields.constEnd(); ++it)
        device.insert(it.key(), it.value());
    for (auto it = m_holds.constBegin(); it != m_holds.constEnd(); ++it)
        device.insert(it.key(), it.value());
    return device;
}

void FieldOverlay::refresh()
{
    const QMap<QString, QString> device = m_device->fields();
    const QString sport = m_device->sport();
    QStringList names;
    bool fieldsMoved = false;
    {
        QMutexLocker lock(&m_mutex);
        const QMap<QString, QString> shown = merge(device);
        for (auto it = shown.constBegin(); it != shown.constEnd(); ++it) {
            const auto before = m_shown.constFind(it.key());
            if (before == m_shown.constEnd() || *before != it.value())
                names.append(it.key());
        }
        const bool removed =
            std::any_of(m_shown.keyBegin(), m_shown.keyEnd(),
                        [&](const QString& name) { return !shown.contains(name); });
        fieldsMoved = removed || !names.isEmpty();
        if (!fieldsMoved && sport == m_shownSport)
            return;
        if (removed)
            names.clear(); // a field went away: say that everything may have changed
        m_shown = shown;
        m_shownSport = sport;
    }
    if (fieldsMoved)
        Q_EMIT fieldsChanged(names);
    Q_EMIT changed();
}

// Reads go to the merged view that refresh() keeps, built once per change.

QStringList FieldOverlay::fieldNames() const
{
    QMutexLocker lock(&m_mutex);
    return m_shown.keys();
}

QString FieldOverlay::value(const QString& name) const
{
    QMutexLocker lock(&m_mutex);
    return m_shown.value(name);
}

QMap<QString, QString> FieldOverlay::fields() const
{
    QMutexLocker lock(&m_mutex);
    return m_shown;
}

QString FieldOverlay::sport() const
{
    QMutexLocker lock(&m_mutex);
    return m_shownSport;
}

QByteArray FieldOverlay::toJsonLine() const
{
    const QString source = m_device->source();
    const QDateTime updatedAt = m_device->updatedAt();
    QMutexLocker lock(&m_mutex);
    return snapshotLine(m_shownSport, m_shown, source, updatedAt);
}

} // namespace vantorelle
