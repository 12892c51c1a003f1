#include "app.h"

#include "address_override.h"
#include "ble_link.h"
#include "cloud_relay.h"
#include "device_session.h"
#include "hosted_server.h"
#include "log.h"
#include "manifest_signature.h"
#include "source_manager.h"
#include "tls_support.h"
#include "usb_link.h"

#include <QDateTime>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <utility>

namespace vantorelle {

namespace {

std::atomic<App*> s_instance{nullptr};

QJsonObject textObject(const QMap<QString, QString>& map)
{
    QJsonObject json;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        json.insert(it.key(), it.value());
    return json;
}

QString portalAddress(const AppEnvironment& environment)
{
    if (!environment.portalUrl.isEmpty())
        return environment.portalUrl;
    const QString fromEnvironment = addressOverride("VANTORELLE_PORTAL_URL");
    return fromEnvironment.isEmpty() ? QStringLiteral(VANTORELLE_PORTAL_URL) : fromEnvironment;
}

// The source manager's settings; VANTORELLE_FEED_PORT moves the devices' live feed port, so a
// simulated device can serve it without the privileges port 1010 needs.
SourceManagerSettings sourceSettings(const AppEnvironment& environment)
{
    SourceManagerSettings settings = environment.sources;
    bool ok = false;
    const int port = addressOverride("VANTORELLE_FEED_PORT").toInt(&ok);
    if (ok && port > 0 && port <= 65535)
        settings.feed.port = quint16(port);
    return settings;
}

} // namespace

App* App::instance()
{
    return s_instance.load(std::memory_order_acquire);
}

void App::setInstance(App* app)
{
    s_instance.store(app, std::memory_order_release);
}

App::App(const AppEnvironment& environment, QObject* parent)
    : QObject(parent), m_portal(portalAddress(environment))
{
    m_settings.load(environment.settingsFile);
    m_portal.jar()->setPath(environment.sessionFile);
    m_portal.jar()->load();

    SourceManagerSettings sources = sourceSettings(environment);
    sources.staleAfterMs = m_settings.staleAfterSeconds() * 1000;
    m_sourceManager = new SourceManager(&m_portal, &m_live, sources, this);
    m_usbSettings = environment.usb;
    m_sessionSettings = environment.session;
    m_bluetooth = environment.bluetooth;

    m_fields.restore(m_settings.operatorFields(), m_settings.heldFields());
    connect(&m_fields, &FieldOverlay::operatorChanged, this, [this] {
        m_settings.setOperatorFields(m_fields.operatorFields());
        m_settings.setHeldFields(m_fields.holds());
    });
    connect(m_sourceManager, &SourceManager::statusChanged, this, &App::onSourceStatusChanged);

    m_server = new HostedServer(&m_live, this);
    m_server->setSnapshot([this] { return m_fields.toJsonLine(); });
    m_server->setHandler([this](const QString& op, const QJsonObject& request) {
        return handleServerRequest(op, request);
    });
    connect(&m_fields, &FieldOverlay::changed, m_server, &HostedServer::broadcast);
    connect(m_server, &HostedServer::clientsChanged, this, &App::serverStateChanged);
    m_browserServer = new HostedServer(&m_live, this);
    m_browserServer->setHttpOnly(true);
    m_browserServer->setSnapshot([this] { return m_fields.toJsonLine(); });
    connect(&m_fields, &FieldOverlay::changed, m_browserServer, &HostedServer::broadcast);
    connect(m_browserServer, &HostedServer::clientsChanged, this, &App::serverStateChanged);

    connect(&m_portal, &PortalClient::signedInChanged, this, &App::onSignedInChanged);

    if (environment.startWhenIdle)
        QTimer::singleShot(0, this, [this, environment] { start(environment); });
    else
        start(environment);
}

void App::start(const AppEnvironment& environment)
{
    ensureTlsSupport(environment.tlsPluginFolder);
    applyServerSettings();
    configureUpdater(environment);
    startLocalDevice();
    restoreSignIn();
}

App::~App()
{
    // Clients are told at once, before the rest of the plug-in goes away.
    m_server->stop();
    m_browserServer->stop();
    // The children use the portal, the live data and the settings, which are members and so
    // would go first: the children go now, explicitly, the route before the server it feeds.
    delete std::exchange(m_sourceManager, nullptr);
    delete std::exchange(m_server, nullptr);
    delete std::exchange(m_browserServer, nullptr);
}

void App::configureUpdater(const AppEnvironment& environment)
{
    UpdaterConfig config;
    const QString manifestOverride = addressOverride("VANTORELLE_UPDATE_URL");
    if (!manifestOverride.isEmpty())
        config.manifestUrl = manifestOverride;
    // A moved manifest comes from a test service, which signs with a key of its own.
    const QByteArray testKey = developmentUpdateKey();
    if (!testKey.isEmpty())
        config.publicKeys.append(testKey);
    config.obsVersion = environment.obsVersion;
    config.stagingFolder = environment.updateFolder;
    config.installFolder = environment.pluginRoot;
    m_updater.setConfig(config);
    // A swap a crash interrupted, and files an earlier update could not replace while OBS held
    // them.
    if (!environment.pluginRoot.isEmpty())
        PluginUpdater::tidyInstallFolder(environment.pluginRoot);

    connect(&m_updater, &PluginUpdater::stateChanged, this, &App::onUpdaterStateChanged);

    m_firstUpdateCheck.setSingleShot(true);
    m_firstUpdateCheck.setInterval(environment.firstUpdateCheckMs);
    m_dailyUpdateCheck.setInterval(environment.updateCheckIntervalMs);
    connect(&m_firstUpdateCheck, &QTimer::timeout, this, &App::automaticUpdateCheck);
    connect(&m_dailyUpdateCheck, &QTimer::timeout, this, &App::automaticUpdateCheck);
    m_firstUpdateCheck.start();
    m_dailyUpdateCheck.start();
}

void App::onUpdaterStateChanged()
{
    // The signal also fires for new texts in the same state (download progress): act on entry.
    const PluginUpdater::State state = m_updater.state();
    if (state == m_updaterState)
        return;
    m_updaterState = state;
    if (state == PluginUpdater::UpToDate || state == PluginUpdater::Available) {
        m_settings.setLastUpdateCheck(double(QDateTime::currentSecsSinceEpoch()));
    } else if (state == PluginUpdater::Installed) {
        logLine(
            LogLevel::Info,
            QStringLiteral("[vantorelle] plugin %1 installed; takes effect on the next OBS start")
                .arg(m_updater.manifest().version));
    }
}

void App::automaticUpdateCheck()
{
    if (m_settings.autoCheckUpdates())
        m_updater.check(false);
}

void App::restoreSignIn()
{
    m_portal.restoreSession([](const PortalResult& result) {
        // Signed out and offline both just show the user as signed out.
        if (!result.ok && result.status != 401 && result.status != 0)
            logLine(LogLevel::Warning,
                    QStringLiteral("[vantorelle] could not restore sign-in: HTTP %1")
                        .arg(result.status));
    });
}

// A device on the local network never needs the account: follow it straight away.
// A device reached without the cloud starts at once, signed in or not.
void App::startLocalDevice()
{
    const QString id = m_settings.selectedDevice();
    const Route route = m_settings.route(id);
    if (!id.isEmpty() && route != Route::Cloud && routesOf(id).contains(route))
        selectDevice(id);
}

void App::onSignedInChanged(bool signedIn)
{
    if (!signedIn) {
        if (!m_devices.isEmpty() || !m_outputs.isEmpty()) {
            m_devices.clear();
            m_outputs.clear();
            Q_EMIT devicesChanged();
            Q_EMIT outputsChanged();
        }
        return;
    }
    refreshDevices([this](bool ok, const QString&) {
        if (ok)
            restoreSelection();
    });
    refreshOutputs();
}

void App::restoreSelection()
{
    const QString stored = m_settings.selectedDevice();
    QString chosen;
    for (const DeviceEntry& device : std::as_const(m_devices)) {
        if (device.id == stored)
            chosen = stored;
    }
    if (chosen.isEmpty() && m_devices.size() == 1)
        chosen = m_devices.first().id;
    // A local device followed since start-up keeps its feed or link rather than reconnecting.
    const bool alreadyFollowed =
        chosen == m_followed && (m_sourceManager->mode() == SourceManager::Mode::Network ||
                                 m_sourceManager->mode() == SourceManager::Mode::Link);
    if (!chosen.isEmpty() && !alreadyFollowed)
        selectDevice(chosen);
}

void App::refreshDevices(Done done)
{
    const QPointer<App> alive(this);
    m_portal.listDevices([alive, done = std::move(done)](const PortalResult& result) {
        if (!alive)
            return;
        App* self = alive;
        if (result.ok) {
            self->m_devices.clear();
            for (const PortalDevice& device : PortalClient::parseDevices(result))
                self->m_devices.append(
                    {device.deviceId, device.nickname,
                     QJsonObject{{QStringLiteral("device_id"), device.deviceId},
                                 {QStringLiteral("nickname"), device.nickname},
                                 {QStringLiteral("status"), device.status},
                                 {QStringLiteral("ble_passkey"), device.blePasskey}}});
            self->m_devicesError.clear();
        } else {
            self->m_devicesError = result.message;
        }
        Q_EMIT self->devicesChanged();
        if (done)
            done(result.ok, result.message);
    });
}

void App::refreshOutputs(Done done)
{
    if (!m_portal.isSignedIn()) {
        m_outputsError = QStringLiteral("Sign in from the Vantorelle dock to see your graphics.");
        Q_EMIT outputsChanged();
        if (done)
            done(false, m_outputsError);
        return;
    }
    const QPointer<App> alive(this);
    m_portal.listOutputs([alive, done = std::move(done)](const PortalResult& result) {
        if (!alive)
            return;
        App* self = alive;
        if (result.ok) {
            self->m_outputs = self->m_portal.parseOutputs(result);
            self->m_outputsError.clear();
        } else if (result.error == QLatin1String("cloud_subscription_required") ||
                   result.status == 402) {
            self->m_outputsError = QStringLiteral("Graphics need an active Vantorelle cloud plan.");
        } else {
            self->m_outputsError = result.message;
        }
        Q_EMIT self->outputsChanged();
        if (done)
            done(result.ok, self->m_outputsError);
    });
}

bool App::refreshOutputsBlocking(int timeoutMs)
{
    QEventLoop loop;
    // Shared with the callback, which may run after this frame is gone.
    auto outcome = std::make_shared<std::optional<bool>>();
    const QPointer<QEventLoop> guard(&loop);
    refreshOutputs([outcome, guard](bool ok, const QString&) {
        *outcome = ok;
        if (guard)
            guard->quit();
    });
    if (!outcome->has_value()) {
        QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return outcome->value_or(false);
}

QString App::deviceName(const QString& id) const
{
    for (const DeviceEntry& device : m_devices) {
        if (device.id == id && !device.name.isEmpty())
            return device.name;
    }
    for (const QString& name : {m_settings.lanEntry(id).name, m_settings.linkEntry(id).name}) {
        if (!name.isEmpty())
            return name;
    }
    return id;
}

void App::selectDevice(const QString& id)
{
    m_settings.setSelectedDevice(id);
    m_followed = id;
    const LanEntry lan = m_settings.lanEntry(id);
    const Route route = m_settings.route(id);
    if (route == Route::Lan && lan.usable())
        m_sourceManager->useLan(lan.host, lan.token, deviceName(id));
    else if ((route == Route::Usb || route == Route::Bluetooth) && routesOf(id).contains(route))
        openLinkRoute(id, route);
    else
        m_sourceManager->useCloud(id, deviceName(id));
}

// Opens the device's cable or Bluetooth link in a session of its own, as the setup wizard did.
// Live data arrives on the link whether or not the session signs in; the session's password is
// the default one, and the device manager asks for another when the device has one.
void App::openLinkRoute(const QString& id, Route route)
{
    const SourceManager::Mode mode = m_sourceManager->mode();
    const std::shared_ptr<DeviceSession> current = m_sourceManager->session();
    const QString kind = route == Route::Usb ? QStringLiteral("usb") : QStringLiteral("ble");
    // The link the wizard just handed over is this very route: keep it rather than reopen.
    if (mode == SourceManager::Mode::Link && current && current->link() &&
        current->link()->kind() == kind && linkDeviceId(*current) == id)
        return;
    const LinkEntry entry = m_settings.linkEntry(id);
    DeviceLink* link = nullptr;
    if (route == Route::Usb)
        link = new UsbLink(entry.usbPort, m_usbSettings);
    else
        link = new BleLink(entry.bleAddress, entry.name, {}, m_bluetooth);
    std::shared_ptr<DeviceSession> session(new DeviceSession(m_sessionSettings),
                                           [](DeviceSession* s) { s->deleteLater(); });
    link->setParent(session.get());
    if (auto* usb = qobject_cast<UsbLink*>(link))
        addRelay(usb->cloudRelay());
    m_sourceManager->useLink(session, deviceName(id));
    session->start(link);
}

QString App::linkDeviceId(const DeviceSession& session)
{
    const QString id = session.deviceInfo().value(QLatin1String("device_id")).toString();
    if (!id.isEmpty())
        return id;
    // A wireless receiver names no device of its own.
    if (const auto* usb = qobject_cast<const UsbLink*>(session.link()))
        return QStringLiteral("usb:") + usb->portName();
    if (const auto* ble = qobject_cast<const BleLink*>(session.link()))
        return QStringLiteral("ble:") + ble->address();
    return {};
}

void App::reconnect()
{
    switch (m_sourceManager->mode()) {
    case SourceManager::Mode::Cloud:
    case SourceManager::Mode::Network:
        selectDevice(m_followed);
        break;
    case SourceManager::Mode::Link:
        if (const auto session = m_sourceManager->session(); session && session->link())
            session->start(session->link());
        break;
    case SourceManager::Mode::None:
        break;
    }
}

// Holds bridge an outage: when the data comes back, they end if the operator chose so.
void App::onSourceStatusChanged()
{
    const bool fresh = m_sourceManager->isLive() && !m_sourceManager->isStale();
    const bool cameBack = fresh && !m_wasFresh;
    m_wasFresh = fresh;
    if (cameBack && m_settings.releaseHoldsWhenLive())
        m_fields.releaseAll();
}

QList<DeviceEntry> App::choosableDevices() const
{
    QList<DeviceEntry> choosable = m_devices;
    const auto listed = [&choosable](const QString& id) {
        return std::any_of(choosable.cbegin(), choosable.cend(),
                           [&](const DeviceEntry& d) { return d.id == id; });
    };
    for (const QString& id : m_settings.lanDeviceIds() + m_settings.linkDeviceIds()) {
        if (!listed(id) && !routesOf(id).isEmpty())
            choosable.append({id, deviceName(id), {}});
    }
    return choosable;
}

bool App::isInAccount(const QString& id) const
{
    return !id.isEmpty() && std::any_of(m_devices.cbegin(), m_devices.cend(),
                                        [&](const DeviceEntry& d) { return d.id == id; });
}

QList<Route> App::routesOf(const QString& id) const
{
    QList<Route> routes;
    if (isInAccount(id))
        routes << Route::Cloud;
    if (id.isEmpty())
        return routes;
    if (m_settings.lanEntry(id).usable())
        routes << Route::Lan;
    const LinkEntry link = m_settings.linkEntry(id);
    if (!link.usbPort.isEmpty())
        routes << Route::Usb;
    if (!link.bleAddress.isEmpty())
        routes << Route::Bluetooth;
    return routes;
}

void App::chooseDevice(const QString& id)
{
    if (id.isEmpty())
        return;
    const QList<Route> routes = routesOf(id);
    if (!routes.isEmpty() && !routes.contains(m_settings.route(id)))
        m_settings.setRoute(id, routes.first());
    selectDevice(id);
}

void App::chooseRoute(const QString& id, Route route)
{
    if (id.isEmpty())
        return;
    m_settings.setRoute(id, route);
    selectDevice(id);
}

void App::followSetUpDevice(const std::shared_ptr<DeviceSession>& session, const QString& name)
{
    const QString id = linkDeviceId(*session);
    bool overLink = false;
    if (auto* usb = qobject_cast<UsbLink*>(session->link())) {
        m_settings.setLastUsbPort(usb->portName());
        addRelay(usb->cloudRelay());
        if (!id.isEmpty()) {
            m_settings.setUsbLink(id, usb->portName(), name);
            m_settings.setRoute(id, Route::Usb);
            overLink = true;
        }
    } else if (auto* ble = qobject_cast<BleLink*>(session->link()); ble && !id.isEmpty()) {
        m_settings.setBluetoothLink(id, ble->address(), name);
        m_settings.setRoute(id, Route::Bluetooth);
        overLink = true;
    }
    m_sourceManager->useLink(session, name);
    // A device on the network keeps today's selection: its feed is chosen through its route.
    if (overLink) {
        m_settings.setSelectedDevice(id);
        m_followed = id;
        Q_EMIT devicesChanged();
    }
}

void App::applyServerSettings()
{
    if (m_settings.serverEnabled()) {
        QString error;
        if (!m_server->start(quint16(m_settings.serverPort()), m_settings.serverAllowNetwork(),
                             &error))
            logLine(LogLevel::Warning, QStringLiteral("[vantorelle] %1").arg(error));
    } else {
        m_server->stop();
    }
    // The browsers' port follows; its failure shows in the dock (lastError), not in the log.
    if (m_settings.serverEnabled() && m_settings.browserPort() > 0)
        m_browserServer->start(quint16(m_settings.browserPort()), m_settings.serverAllowNetwork());
    else
        m_browserServer->stop();
    Q_EMIT serverStateChanged();
}

void App::addRelay(CloudRelay* relay)
{
    if (!relay || m_relays.contains(relay))
        return;
    m_relays.removeAll(nullptr);
    m_relays.append(relay);
    relay->setShareConnection(m_settings.shareConnection());
    connect(relay, &CloudRelay::stateChanged, this, &App::usbRelaysChanged);
    connect(relay, &QObject::destroyed, this, [this] {
        m_relays.removeAll(nullptr);
        Q_EMIT usbRelaysChanged();
    });
    Q_EMIT usbRelaysChanged();
}

void App::setShareConnection(bool share)
{
    m_settings.setShareConnection(share);
    for (const QPointer<CloudRelay>& relay : std::as_const(m_relays)) {
        if (relay)
            relay->setShareConnection(share);
    }
}

QStringList App::relayStatusLines() const
{
    QStringList lines;
    for (const QPointer<CloudRelay>& relay : m_relays) {
        const UsbLink* link = relay ? relay->link() : nullptr;
        if (!link)
            continue;
        QString label = link->deviceInfo().value(QStringLiteral("name")).toString();
        if (link->isReceiver())
            label = QStringLiteral("wireless receiver");
        else if (label.isEmpty())
            label = QStringLiteral("USB device");
        QString state;
        if (relay->isConnected())
            state = QStringLiteral("connected to the cloud through this computer");
        else if (!relay->lastError().isEmpty())
            state = QStringLiteral("cannot reach the cloud (%1)").arg(relay->lastError());
        else if (relay->isReady())
            state = QStringLiteral("ready, waiting for the device");
        else
            state = QStringLiteral("waiting for the paired device");
        lines.append(QStringLiteral("%1: %2").arg(label, state));
    }
    return lines;
}

QJsonObject App::handleServerRequest(const QString& op, const QJsonObject& request)
{
    if (op == QLatin1String("status")) {
        return {{QStringLiteral("signed_in"), m_portal.isSignedIn()},
                {QStringLiteral("account"), m_portal.email()},
                {QStringLiteral("source"), m_sourceManager->sourceDescription()},
                {QStringLiteral("device"), m_settings.selectedDevice()},
                {QStringLiteral("live"), m_sourceManager->isLive()},
                {QStringLiteral("stale"), m_sourceManager->isStale()},
                {QStringLiteral("age_ms"), m_sourceManager->ageMs() < 0
                                               ? QJsonValue(QJsonValue::Null)
                                               : QJsonValue(double(m_sourceManager->ageMs()))},
                {QStringLiteral("message"), m_sourceManager->status()},
                {QStringLiteral("sport"), m_live.sport()}};
    }
    if (op == QLatin1String("devices")) {
        QJsonArray list;
        for (const DeviceEntry& device : std::as_const(m_devices))
            list.append(QJsonObject{{QStringLiteral("id"), device.id},
                                    {QStringLiteral("name"), deviceLabel(device.name, device.id)}});
        return {{QStringLiteral("devices"), list}};
    }
    if (op == QLatin1String("use")) {
        const QString id = request.value(QLatin1String("device")).toString();
        if (!isInAccount(id))
            return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "unknown_device"}};
        selectDevice(id);
        return {{QStringLiteral("device"), id}};
    }
    if (op == QLatin1String("hold") || op == QLatin1String("release"))
        return holdRequest(op, request);
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "unknown_op"}};
}

// {"op":"hold","field":NAME,"value":TEXT}, {"op":"release","field":NAME} and
// {"op":"release"} (every hold); the answer lists the holds left.
QJsonObject App::holdRequest(const QString& op, const QJsonObject& request)
{
    const QString field = request.value(QLatin1String("field")).toString();
    if (op == QLatin1String("hold")) {
        const QJsonValue value = request.value(QLatin1String("value"));
        if (!value.isString() && !value.isDouble())
            return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "bad_value"}};
        if (!m_fields.hold(field, LiveData::valueText(value)))
            return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "bad_field"}};
    } else if (request.contains(QLatin1String("field"))) {
        m_fields.release(field);
    } else {
        m_fields.releaseAll();
    }
    return {{QStringLiteral("holds"), textObject(m_fields.holds())}};
}

QJsonObject App::handleVendorRequest(const QString& type, const QJsonObject& request)
{
    static const QMap<QString, QString> kServerOps{{QStringLiteral("GetStatus"), "status"},
                                                   {QStringLiteral("ListDevices"), "devices"},
                                                   {QStringLiteral("UseDevice"), "use"}};
    if (kServerOps.contains(type))
        return handleServerRequest(kServerOps.value(type), request);
    if (type == QLatin1String("GetSnapshot"))
        return QJsonDocument::fromJson(m_fields.toJsonLine()).object();
    const QString field = request.value(QLatin1String("field")).toString();
    if (type == QLatin1String("SetOperatorField")) {
        const QJsonValue value = request.value(QLatin1String("value"));
        if (!value.isString() && !value.isDouble())
            return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "bad_value"}};
        const QString text = LiveData::valueText(value);
        const bool hold = request.value(QLatin1String("hold")).toBool();
        if (!(hold ? m_fields.hold(field, text) : m_fields.setField(field, text)))
            return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "bad_field"}};
        return operatorFieldsReply();
    }
    if (type == QLatin1String("ReleaseOperatorField")) {
        if (field.isEmpty())
            m_fields.releaseAll();
        else if (m_fields.holds().contains(field))
            m_fields.release(field);
        else
            m_fields.removeField(field);
        return operatorFieldsReply();
    }
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "unknown_request"}};
}

// The operator's own fields and the holds, as the field requests answer them.
QJsonObject App::operatorFieldsReply() const
{
    return {{QStringLiteral("fields"), textObject(m_fields.operatorFields())},
            {QStringLiteral("holds"), textObject(m_fields.holds())}};
}

} // namespace vantorelle
