#include "settings_store.h"

#include <QFile>
#include <QJsonDocument>
#include <QStringList>

#include <cmath>

namespace vantorelle {

namespace {

const char* const kSelectedDevice = "selected_device";
const char* const kServerEnabled = "server_enabled";
const char* const kServerPort = "server_port";
const char* const kBrowserPort = "browser_port";
const char* const kServerAllowNetwork = "server_allow_network";
const char* const kShareConnection = "share_connection";
const char* const kAutoCheckUpdates = "auto_check_updates";
const char* const kStaleAfter = "stale_after_s";
const char* const kLastUpdateCheck = "last_update_check";
const char* const kLastUsbPort = "last_usb_port";
const char* const kRoutes = "routes";
const char* const kOperatorFields = "operator_fields";
const char* const kHeldFields = "held_fields";
const char* const kReleaseHoldsWhenLive = "release_holds_when_live";
const char* const kControllerList = "controller_list";
const char* const kLan = "lan";
const char* const kLinks = "links";

// The values of a `routes` entry, by Route.
const char* const kRouteNames[] = {"cloud", "lan", "usb", "ble"};

// A text member of a device's entry; anything but text gives an empty string.
QString textIn(const QJsonObject& entry, const char* member)
{
    const QJsonValue v = entry.value(QLatin1String(member));
    return v.isString() ? v.toString() : QString();
}

} // namespace

void SettingsStore::load(const QString& path)
{
    m_path = path;
    m_doc = {};
    QFile file(path);
    if (!path.isEmpty() && file.open(QIODevice::ReadOnly))
        loadBytes(file.readAll());
}

void SettingsStore::loadBytes(const QByteArray& bytes)
{
    const QJsonDocument doc = QJsonDocument::fromJson(bytes);
    m_doc = doc.isObject() ? doc.object() : QJsonObject();
}

QString SettingsStore::stringValue(const char* key, const QString& fallback) const
{
    const QJsonValue v = m_doc.value(QLatin1String(key));
    return v.isString() ? v.toString() : fallback;
}

int SettingsStore::wholeValue(const char* key, int lowest, int highest, int fallback) const
{
    const QJsonValue v = m_doc.value(QLatin1String(key));
    const double d = v.toDouble(-1);
    if (!v.isDouble() || d != std::floor(d) || d < lowest || d > highest)
        return fallback;
    return static_cast<int>(d);
}

bool SettingsStore::boolValue(const char* key, bool fallback) const
{
    const QJsonValue v = m_doc.value(QLatin1String(key));
    return v.isBool() ? v.toBool() : fallback;
}

void SettingsStore::setValue(const char* key, const QJsonValue& value)
{
    // A value set again as it is writes nothing (a device selected again at every start).
    const auto current = m_doc.constFind(QLatin1String(key));
    if (!m_unsaved && current != m_doc.constEnd() && *current == value)
        return;
    m_doc.insert(QLatin1String(key), value);
    save();
}

void SettingsStore::setInner(const char* key, const QString& deviceId, const QJsonValue& value)
{
    const QJsonValue current = m_doc.value(QLatin1String(key));
    QJsonObject inner = current.isObject() ? current.toObject() : QJsonObject{};
    inner.insert(deviceId, value);
    setValue(key, inner);
}

void SettingsStore::save()
{
    if (m_path.isEmpty())
        return;
    // A failed save is not reported: the next setter saves the whole document again.
    m_unsaved = !saveFileAtomically(m_path, fileBytes(), m_writer);
}

QByteArray SettingsStore::fileBytes() const
{
    return QJsonDocument(m_doc).toJson(QJsonDocument::Indented);
}

QString SettingsStore::selectedDevice() const
{
    return stringValue(kSelectedDevice);
}
void SettingsStore::setSelectedDevice(const QString& id)
{
    setValue(kSelectedDevice, id);
}
bool SettingsStore::serverEnabled() const
{
    return boolValue(kServerEnabled, false);
}
void SettingsStore::setServerEnabled(bool enabled)
{
    setValue(kServerEnabled, enabled);
}

int SettingsStore::staleAfterSeconds() const
{
    return wholeValue(kStaleAfter, 1, 3600, DefaultStaleAfterSeconds);
}

void SettingsStore::setStaleAfterSeconds(int seconds)
{
    setValue(kStaleAfter, seconds);
}

int SettingsStore::browserPort() const
{
    return wholeValue(kBrowserPort, 0, 65535, DefaultBrowserPort);
}

void SettingsStore::setBrowserPort(int port)
{
    setValue(kBrowserPort, port);
}

int SettingsStore::serverPort() const
{
    // Only a whole number that is a TCP port counts; anything else is the default.
    return wholeValue(kServerPort, 1, 65535, DefaultServerPort);
}

void SettingsStore::setServerPort(int port)
{
    setValue(kServerPort, port);
}
bool SettingsStore::serverAllowNetwork() const
{
    return boolValue(kServerAllowNetwork, false);
}
void SettingsStore::setServerAllowNetwork(bool allow)
{
    setValue(kServerAllowNetwork, allow);
}
bool SettingsStore::shareConnection() const
{
    return boolValue(kShareConnection, true);
}
void SettingsStore::setShareConnection(bool share)
{
    setValue(kShareConnection, share);
}
bool SettingsStore::autoCheckUpdates() const
{
    return boolValue(kAutoCheckUpdates, true);
}
void SettingsStore::setAutoCheckUpdates(bool enabled)
{
    setValue(kAutoCheckUpdates, enabled);
}

double SettingsStore::lastUpdateCheck() const
{
    // Shown as a date: a time before the epoch or past the year 9999 counts as no check.
    const QJsonValue v = m_doc.value(QLatin1String(kLastUpdateCheck));
    const double seconds = v.toDouble(0);
    return v.isDouble() && seconds >= 0 && seconds <= 253402300799.0 ? seconds : 0.0;
}

void SettingsStore::setLastUpdateCheck(double seconds)
{
    setValue(kLastUpdateCheck, seconds);
}
QString SettingsStore::lastUsbPort() const
{
    return stringValue(kLastUsbPort);
}
void SettingsStore::setLastUsbPort(const QString& port)
{
    setValue(kLastUsbPort, port);
}

QMap<QString, QString> SettingsStore::textMap(const char* key) const
{
    QMap<QString, QString> map;
    const QJsonObject object = m_doc.value(QLatin1String(key)).toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it->isString())
            map.insert(it.key(), it->toString());
    }
    return map;
}

void SettingsStore::setTextMap(const char* key, const QMap<QString, QString>& map)
{
    QJsonObject object;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        object.insert(it.key(), it.value());
    setValue(key, object);
}

QMap<QString, QString> SettingsStore::operatorFields() const
{
    return textMap(kOperatorFields);
}

void SettingsStore::setOperatorFields(const QMap<QString, QString>& fields)
{
    setTextMap(kOperatorFields, fields);
}

QMap<QString, QString> SettingsStore::heldFields() const
{
    return textMap(kHeldFields);
}

void SettingsStore::setHeldFields(const QMap<QString, QString>& fields)
{
    setTextMap(kHeldFields, fields);
}

bool SettingsStore::releaseHoldsWhenLive() const
{
    return boolValue(kReleaseHoldsWhenLive, true);
}

void SettingsStore::setReleaseHoldsWhenLive(bool release)
{
    setValue(kReleaseHoldsWhenLive, release);
}

QJsonArray SettingsStore::controllerList() const
{
    return m_doc.value(QLatin1String(kControllerList)).toArray();
}

void SettingsStore::setControllerList(const QJsonArray& controllers)
{
    setValue(kControllerList, controllers);
}

Route SettingsStore::route(const QString& deviceId) const
{
    const QString name = m_doc.value(QLatin1String(kRoutes)).toObject().value(deviceId).toString();
    for (const Route route : {Route::Lan, Route::Usb, Route::Bluetooth}) {
        if (name == QLatin1String(kRouteNames[int(route)]))
            return route;
    }
    return Route::Cloud;
}

void SettingsStore::setRoute(const QString& deviceId, Route route)
{
    setInner(kRoutes, deviceId, QLatin1String(kRouteNames[int(route)]));
}

// A device's entry under `key` ("lan", "links").
QJsonObject SettingsStore::deviceEntry(const char* key, const QString& deviceId) const
{
    return m_doc.value(QLatin1String(key)).toObject().value(deviceId).toObject();
}

LanEntry SettingsStore::lanEntry(const QString& deviceId) const
{
    const QJsonObject entry = deviceEntry(kLan, deviceId);
    return {textIn(entry, "host"), textIn(entry, "token"), textIn(entry, "name")};
}

void SettingsStore::setLanEntry(const QString& deviceId, const QString& host, const QString& token,
                                const QString& name)
{
    setInner(kLan, deviceId,
             QJsonObject{{QStringLiteral("host"), host},
                         {QStringLiteral("token"), token},
                         {QStringLiteral("name"), name}});
}

QStringList SettingsStore::lanDeviceIds() const
{
    return m_doc.value(QLatin1String(kLan)).toObject().keys();
}

LinkEntry SettingsStore::linkEntry(const QString& deviceId) const
{
    const QJsonObject entry = deviceEntry(kLinks, deviceId);
    return {textIn(entry, "usb_port"), textIn(entry, "ble_address"), textIn(entry, "name")};
}

void SettingsStore::setUsbLink(const QString& deviceId, const QString& port, const QString& name)
{
    setLinkMember(deviceId, "usb_port", port, name);
}

void SettingsStore::setBluetoothLink(const QString& deviceId, const QString& address,
                                     const QString& name)
{
    setLinkMember(deviceId, "ble_address", address, name);
}

void SettingsStore::setLinkMember(const QString& deviceId, const char* member, const QString& value,
                                  const QString& name)
{
    QJsonObject entry = deviceEntry(kLinks, deviceId);
    entry.insert(QLatin1String(member), value);
    entry.insert(QStringLiteral("name"), name);
    setInner(kLinks, deviceId, entry);
}

QStringList SettingsStore::linkDeviceIds() const
{
    return m_doc.value(QLatin1String(kLinks)).toObject().keys();
}

} // namespace vantorelle
