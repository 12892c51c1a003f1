#pragma once

#include "field_overlay.h"
#include "live_data.h"
#include "plugin_updater.h"
#include "portal_client.h"
#include "settings_store.h"
#include "source_manager.h"
#include "usb_link.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

namespace vantorelle {

class BleHelperBridge;
class CloudRelay;
class DeviceSession;
class HostedServer;

// One device of the signed-in account: id and display name first, then the portal's whole record.
struct DeviceEntry
{
    QString id;
    QString name;
    QJsonObject record;
};

// How lists name a device: "name (id)", or the bare id when it has no name.
inline QString deviceLabel(const QString& name, const QString& id)
{
    return name.isEmpty() ? id : QStringLiteral("%1 (%2)").arg(name, id);
}

// Where the application object keeps its files, and what it knows of the host.
struct AppEnvironment
{
    // "settings.json"; empty keeps the defaults and saves nothing.
    QString settingsFile;
    // "session.json", the portal's saved sign-in; empty keeps none.
    QString sessionFile;
    // The updater's working folder.
    QString updateFolder;
    // The plug-in root (holding "bin" and "data"); updates are installed there.
    QString pluginRoot;
    // The running OBS version.
    QString obsVersion;
    // The portal's base address; empty takes VANTORELLE_PORTAL_URL from the environment, then
    // the build's address.
    QString portalUrl;
    // Automatic update checks: the first one after start-up, then one a day.
    int firstUpdateCheckMs = 20000;
    int updateCheckIntervalMs = 86400000;
    // Cloud polling pace and where the local network feed connects.
    SourceManagerSettings sources;
    // How a restored USB or Bluetooth route opens its link and session; a null bridge is the
    // plug-in's Bluetooth helper.
    UsbLinkSettings usb;
    DeviceSessionSettings session;
    BleHelperBridge* bluetooth = nullptr;
    // Where a TLS backend of the plug-in's own may lie (OBS on Windows ships Qt without one).
    QString tlsPluginFolder;
    // OBS waits for every module's load: the module starts the servers, the update folder's
    // tidy-up, the followed device and the sign-in when the event loop first turns instead.
    bool startWhenIdle = false;
};

// The plug-in's one application object, alive from module load to unload. Everything on the UI
// thread; code elsewhere reaches it through instance(), which is null outside that span.
class App : public QObject
{
    Q_OBJECT

public:
    // Called with whether a fetch succeeded and, when not, the sentence to show.
    using Done = std::function<void(bool ok, const QString& error)>;

    explicit App(const AppEnvironment& environment, QObject* parent = nullptr);
    ~App() override;

    static App* instance();
    static void setInstance(App* app);

    PortalClient& portal() { return m_portal; }
    LiveData& live() { return m_live; }
    // What outputs show: the device's fields with the operator's fields and holds over them.
    FieldOverlay& fields() { return m_fields; }
    SettingsStore& settings() { return m_settings; }
    SourceManager* sourceManager() const { return m_sourceManager; }
    HostedServer* server() const { return m_server; }
    // The same data over HTTP alone, for browser sources: a browser may open a connection and
    // speak on it only seconds later, which a port that greets line clients cannot wait for.
    HostedServer* browserServer() const { return m_browserServer; }
    PluginUpdater& updater() { return m_updater; }
    bool isSignedIn() const { return m_portal.isSignedIn(); }
    const QList<DeviceEntry>& devices() const { return m_devices; }
    QString devicesError() const { return m_devicesError; }
    const QList<GraphicsOutput>& outputs() const { return m_outputs; }
    QString outputsError() const { return m_outputsError; }

    // Fetches the account's devices and replaces the list.
    void refreshDevices(Done done = {});
    // Fetches the account's graphics outputs and replaces the list.
    void refreshOutputs(Done done = {});
    // refreshOutputs, waited for in a local event loop for at most `timeoutMs`; true when the
    // fetch succeeded in time.
    bool refreshOutputsBlocking(int timeoutMs);
    // Makes a device the live-data device and remembers it.
    void selectDevice(const QString& id);
    // The devices one can choose for live data: the account's, then the ones set up on this
    // computer (its network, a USB cable, Bluetooth) that the account does not hold (those never
    // need the account).
    QList<DeviceEntry> choosableDevices() const;
    bool isInAccount(const QString& id) const;
    // The routes a device can take: the cloud while it is in the account, the local network
    // while it has a usable entry, USB and Bluetooth once it was set up through them. Empty for
    // an unknown device.
    QList<Route> routesOf(const QString& id) const;
    // Chooses a device for live data; it keeps its route only while it can still take it.
    void chooseDevice(const QString& id);
    // Chooses how a device's live data comes, and follows it.
    void chooseRoute(const QString& id, Route route);
    // Live data now follows a device set up in a session of its own (the setup wizard's): the
    // source manager keeps the session, and a USB port is remembered and its relay shared. A
    // device on USB or Bluetooth becomes the selected device with that route, so that the next
    // start opens the same link again.
    void followSetUpDevice(const std::shared_ptr<DeviceSession>& session, const QString& name);
    // The name status texts use: the portal nickname, else the network entry's name, else the id.
    QString deviceName(const QString& id) const;
    // Starts the current route over: the feed reconnects and the cloud polls at once, a USB or
    // Bluetooth link is opened again.
    void reconnect();
    // Starts or stops the sharing server as the settings say.
    void applyServerSettings();
    // Answers one request of a sharing-server client.
    QJsonObject handleServerRequest(const QString& op, const QJsonObject& request);
    // Answers one request that remote-control programs send through OBS's websocket:
    // "GetSnapshot", "GetStatus", "ListDevices", "UseDevice" {"device"}, "SetOperatorField"
    // {"field", "value", "hold"} and "ReleaseOperatorField" {"field"} (every hold without one).
    QJsonObject handleVendorRequest(const QString& type, const QJsonObject& request);

    // A USB link's cloud relay now shares (or may share) this computer's internet.
    void addRelay(CloudRelay* relay);
    // Whether USB devices may reach the cloud through this computer: remembered, and applied to
    // every relay at once.
    void setShareConnection(bool share);
    // One line per live relay, e.g. "USB device: ready, waiting for the device".
    QStringList relayStatusLines() const;

Q_SIGNALS:
    void usbRelaysChanged();
    void devicesChanged();
    void outputsChanged();
    void serverStateChanged();

private:
    void start(const AppEnvironment& environment);
    void configureUpdater(const AppEnvironment& environment);
    void onUpdaterStateChanged();
    void automaticUpdateCheck();
    void onSignedInChanged(bool signedIn);
    void restoreSelection();
    void restoreSignIn();
    void startLocalDevice();
    void openLinkRoute(const QString& id, Route route);
    // The id a device set up over a link is kept under: its own, else one made from the link.
    static QString linkDeviceId(const DeviceSession& session);
    void onSourceStatusChanged();
    QJsonObject holdRequest(const QString& op, const QJsonObject& request);
    QJsonObject operatorFieldsReply() const;

    PortalClient m_portal;
    LiveData m_live;
    FieldOverlay m_fields{&m_live};
    SettingsStore m_settings;
    QList<DeviceEntry> m_devices;
    QString m_devicesError;
    PluginUpdater m_updater;
    PluginUpdater::State m_updaterState = PluginUpdater::Idle;
    QTimer m_firstUpdateCheck;
    QTimer m_dailyUpdateCheck;
    QList<GraphicsOutput> m_outputs;
    QString m_outputsError;
    SourceManager* m_sourceManager = nullptr;
    HostedServer* m_server = nullptr;
    HostedServer* m_browserServer = nullptr;
    QList<QPointer<CloudRelay>> m_relays;
    // The device last handed to the source manager.
    QString m_followed;
    UsbLinkSettings m_usbSettings;
    DeviceSessionSettings m_sessionSettings;
    BleHelperBridge* m_bluetooth = nullptr;
    // The route was live and fresh at its last status change.
    bool m_wasFresh = false;
};

} // namespace vantorelle
