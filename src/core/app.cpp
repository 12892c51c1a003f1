#include "app.h"

#include "live/hosted_server.h"

#include <obs-module.h>

#include <QDateTime>
#include <QJsonArray>

#include <atomic>

namespace vantorelle {

namespace {

std::atomic<App*> s_instance{nullptr};

QString deviceLabel(const DeviceEntry& device)
{
    return device.name.isEmpty() ? device.id
                                 : QStringLiteral("%1 (%2)").arg(device.name, device.id);
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

App::App(const AppEnvironment& environment, QObject* parent) : QObject(parent)
{
    m_settings.load(environment.settingsFile);

    m_server = new HostedServer(&m_live, this);
    m_server->setHandler([this](const QString& op, const QJsonObject& request) {
        return handleServerRequest(op, request);
    });
    connect(&m_live, &LiveData::changed, m_server, &HostedServer::broadcast);
    connect(m_server, &HostedServer::clientsChanged, this, &App::serverStateChanged);

    applyServerSettings();
    configureUpdater(environment);
}

void App::configureUpdater(const AppEnvironment& environment)
{
    UpdaterConfig config;
    const QString manifestOverride = qEnvironmentVariable("VANTORELLE_UPDATE_URL");
    if (!manifestOverride.isEmpty())
        config.manifestUrl = manifestOverride;
    config.obsVersion = environment.obsVersion;
    config.stagingFolder = environment.updateFolder;
    config.installFolder = environment.pluginRoot;
    m_updater.setConfig(config);
    // Files an earlier update could not replace while OBS held them.
    if (!environment.pluginRoot.isEmpty())
        PluginUpdater::removeOldFiles(environment.pluginRoot);

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
        blog(LOG_INFO, "[vantorelle] plugin %s installed; takes effect on the next OBS start",
             m_updater.manifest().version.toUtf8().constData());
    }
}

void App::automaticUpdateCheck()
{
    if (m_settings.autoCheckUpdates())
        m_updater.check(false);
}

App::~App()
{
    // Clients are told at once, before the rest of the plug-in goes away.
    m_server->stop();
}

void App::selectDevice(const QString& id)
{
    m_settings.setSelectedDevice(id);
}

void App::applyServerSettings()
{
    if (m_settings.serverEnabled()) {
        QString error;
        if (!m_server->start(quint16(m_settings.serverPort()), m_settings.serverAllowNetwork(),
                             &error))
            blog(LOG_WARNING, "[vantorelle] %s", error.toUtf8().constData());
    } else {
        m_server->stop();
    }
    Q_EMIT serverStateChanged();
}

QJsonObject App::handleServerRequest(const QString& op, const QJsonObject& request)
{
    if (op == QLatin1String("status")) {
        return {{QStringLiteral("signed_in"), false},
                {QStringLiteral("account"), QString()},
                {QStringLiteral("source"), m_live.source()},
                {QStringLiteral("device"), m_settings.selectedDevice()},
                {QStringLiteral("live"), false},
                {QStringLiteral("message"), QString()},
                {QStringLiteral("sport"), m_live.sport()}};
    }
    if (op == QLatin1String("devices")) {
        QJsonArray list;
        for (const DeviceEntry& device : std::as_const(m_devices))
            list.append(QJsonObject{{QStringLiteral("id"), device.id},
                                    {QStringLiteral("name"), deviceLabel(device)}});
        return {{QStringLiteral("devices"), list}};
    }
    if (op == QLatin1String("use")) {
        const QString id = request.value(QLatin1String("device")).toString();
        const bool known = std::any_of(m_devices.cbegin(), m_devices.cend(),
                                       [&](const DeviceEntry& d) { return d.id == id; });
        if (!known)
            return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "unknown_device"}};
        selectDevice(id);
        return {{QStringLiteral("device"), id}};
    }
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "unknown_op"}};
}

} // namespace vantorelle
