#pragma once

#include "atomic_file.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

namespace vantorelle {

// Where a device's live data comes from when it is chosen: the portal's state poll, the device's
// own feed on the local network, or a USB cable or Bluetooth link to a device set up on this
// computer. Kept per device as "cloud", "lan", "usb" or "ble".
enum class Route
{
    Cloud,
    Lan,
    Usb,
    Bluetooth
};

// How one device is reached on the local network.
struct LanEntry
{
    QString host;
    QString token;
    QString name;

    // An entry without both an address and a token cannot carry live data.
    bool usable() const { return !host.isEmpty() && !token.isEmpty(); }
};

// How a device set up on this computer is reached over a cable or Bluetooth; empty where it was
// not set up that way.
struct LinkEntry
{
    QString usbPort;
    QString bleAddress;
    QString name;
};

// The user's choices, kept in memory as one JSON object and saved whole after every change.
// Reads never fail: a missing key or a value of another JSON type gives the default.
class SettingsStore
{
public:
    static constexpr quint16 DefaultServerPort = 9001;
    static constexpr quint16 DefaultBrowserPort = 9002;
    static constexpr int DefaultStaleAfterSeconds = 30;

    void load(const QString& path);
    // Replaces the settings with those in `bytes`, a settings file's contents; the path stays.
    void loadBytes(const QByteArray& bytes);
    QString path() const { return m_path; }

    QString selectedDevice() const;
    void setSelectedDevice(const QString& id);
    bool serverEnabled() const;
    void setServerEnabled(bool enabled);
    int serverPort() const;
    void setServerPort(int port);
    bool serverAllowNetwork() const;
    // The port that speaks HTTP alone, for browser sources (0: none); it runs with the sharing
    // server, under the same rule for other computers.
    int browserPort() const;
    void setBrowserPort(int port);
    void setServerAllowNetwork(bool allow);
    bool shareConnection() const;
    void setShareConnection(bool share);
    bool autoCheckUpdates() const;
    void setAutoCheckUpdates(bool enabled);
    // Seconds since the Unix epoch; 0 when no check has finished yet (or the file holds no time
    // from 1970 to 9999).
    double lastUpdateCheck() const;
    void setLastUpdateCheck(double seconds);
    QString lastUsbPort() const;
    void setLastUsbPort(const QString& port);
    // Seconds without live data after which a live route is reported as stale (1 to 3600).
    int staleAfterSeconds() const;
    void setStaleAfterSeconds(int seconds);

    // The operator's own fields and the fields held at a typed value, name to text; entries
    // that are not text are left out.
    QMap<QString, QString> operatorFields() const;
    void setOperatorFields(const QMap<QString, QString>& fields);
    QMap<QString, QString> heldFields() const;
    void setHeldFields(const QMap<QString, QString>& fields);
    // Whether holds end by themselves when the device's data comes back after an outage.
    bool releaseHoldsWhenLive() const;
    void setReleaseHoldsWhenLive(bool release);

    // The scoreboard controllers a device last listed (objects of manufacturer, model, sport,
    // input_type); empty before any did.
    QJsonArray controllerList() const;
    void setControllerList(const QJsonArray& controllers);

    // Cloud for a device without an entry.
    Route route(const QString& deviceId) const;
    void setRoute(const QString& deviceId, Route route);
    LanEntry lanEntry(const QString& deviceId) const;
    void setLanEntry(const QString& deviceId, const QString& host, const QString& token,
                     const QString& name);
    // Every device id that has a `lan` entry, in key order.
    QStringList lanDeviceIds() const;
    // The USB port or Bluetooth address a device was last set up through ("links"); setting one
    // keeps the other.
    LinkEntry linkEntry(const QString& deviceId) const;
    void setUsbLink(const QString& deviceId, const QString& port, const QString& name);
    void setBluetoothLink(const QString& deviceId, const QString& address, const QString& name);
    // Every device id that has a `links` entry, in key order.
    QStringList linkDeviceIds() const;

    // What a save writes: the whole document.
    QByteArray fileBytes() const;
    // Replaces how a save writes its bytes (tests fail saves through it).
    void setSaveWriter(SaveWriter writer) { m_writer = std::move(writer); }

private:
    QString stringValue(const char* key, const QString& fallback = {}) const;
    bool boolValue(const char* key, bool fallback) const;
    // A whole number from `lowest` to `highest`; anything else gives `fallback`.
    int wholeValue(const char* key, int lowest, int highest, int fallback) const;
    void setValue(const char* key, const QJsonValue& value);
    QMap<QString, QString> textMap(const char* key) const;
    void setTextMap(const char* key, const QMap<QString, QString>& map);
    void setInner(const char* key, const QString& deviceId, const QJsonValue& value);
    QJsonObject deviceEntry(const char* key, const QString& deviceId) const;
    void setLinkMember(const QString& deviceId, const char* member, const QString& value,
                       const QString& name);
    void save();

    QString m_path;
    QJsonObject m_doc;
    SaveWriter m_writer;
    // The file lags behind the document (a save failed): the next setter saves, even one that
    // changes nothing.
    bool m_unsaved = false;
};

} // namespace vantorelle
