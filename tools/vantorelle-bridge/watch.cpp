#include "watch.h"

#include "console.h"
#include "device_connection.h"

#include <QDir>

namespace vantorelle::bridge {

namespace {

SourceManagerSettings sourceSettings(const WatchCommand& command)
{
    SourceManagerSettings settings;
    settings.feed.port = command.feedPort;
    return settings;
}

} // namespace

Watch::Watch(const WatchCommand& command, const QString& portalUrl, const QString& sessionFile,
             QObject* parent)
    : QObject(parent), m_command(command), m_sessionFile(sessionFile), m_portal(portalUrl),
      m_sources(&m_portal, &m_live, sourceSettings(command)), m_server(&m_live),
      m_httpServer(&m_live)
{
    connect(&m_sources, &SourceManager::statusChanged, this, &Watch::printStatus);
    if (m_command.json)
        connect(&m_live, &LiveData::changed, this, &Watch::printSnapshot);
    connect(&m_live, &LiveData::changed, &m_server, &HostedServer::broadcast);
    connect(&m_live, &LiveData::changed, &m_httpServer, &HostedServer::broadcast);
    m_server.setHandler([this](const QString& op, const QJsonObject&) { return answer(op); });
    m_httpServer.setHttpOnly(true);
    if (!m_command.filesFolder.isEmpty()) {
        m_files = std::make_unique<FieldFiles>(m_command.filesFolder);
        connect(&m_live, &LiveData::changed, this, &Watch::writeFiles);
    }
}

Watch::~Watch()
{
    m_sources.stop();
    m_device.reset();
    m_server.stop();
    m_httpServer.stop();
}

bool Watch::startServer(HostedServer& server, quint16 port, const QString& what)
{
    QString error;
    if (!server.start(port, m_command.allowNetwork, &error)) {
        printError(error);
        return false;
    }
    printError(what.arg(m_command.allowNetwork ? QStringLiteral("every address")
                                               : QStringLiteral("127.0.0.1"))
                   .arg(server.serverPort()));
    return true;
}

bool Watch::start()
{
    if (m_command.servePort && !startServer(m_server, *m_command.servePort,
                                            QStringLiteral("Sharing the live data on %1 port %2")))
        return false;
    if (m_command.httpPort &&
        !startServer(m_httpServer, *m_command.httpPort,
                     QStringLiteral("Serving the live data over HTTP on %1 port %2")))
        return false;
    if (m_files)
        printError(QStringLiteral("Writing one text file per field in %1")
                       .arg(QDir::toNativeSeparators(m_command.filesFolder)));
    const DeviceTarget& target = m_command.target;
    switch (target.route) {
    case DeviceTarget::Route::Usb:
        followUsb();
        break;
    case DeviceTarget::Route::Lan:
        m_sources.useLan(target.address, m_command.token,
                         target.name.isEmpty() ? target.address : target.name);
        break;
    case DeviceTarget::Route::Cloud:
        followCloud();
        break;
    }
    return true;
}

// The sharing server's operations for the one device this program follows.
QJsonObject Watch::answer(const QString& op) const
{
    if (op != QLatin1String("status"))
        return {{QStringLiteral("ok"), false},
                {QStringLiteral("error"), QStringLiteral("unknown_op")}};
    return {{QStringLiteral("signed_in"), m_portal.isSignedIn()},
            {QStringLiteral("account"), m_portal.email()},
            {QStringLiteral("source"), m_sources.sourceDescription()},
            {QStringLiteral("device"), m_command.target.address},
            {QStringLiteral("live"), m_sources.isLive()},
            {QStringLiteral("message"), m_sources.status()},
            {QStringLiteral("sport"), m_live.sport()}};
}

// The session signs in first; the source manager follows it once it is ready, as the setup
// window hands an open session over.
void Watch::followUsb()
{
    m_device = std::make_unique<DeviceConnection>(m_command.target, m_command.password);
    connect(m_device.get(), &DeviceConnection::signedIn, this,
            [this] { m_sources.useLink(m_device->session(), m_device->deviceName()); });
    connect(m_device.get(), &DeviceConnection::failed, this, &Watch::failed);
    m_device->open();
}

void Watch::followCloud()
{
    m_portal.jar()->setPath(m_sessionFile);
    m_portal.jar()->load();
    const QString deviceId = m_command.target.address;
    const QString name = m_command.target.name.isEmpty() ? deviceId : m_command.target.name;
    printError(QStringLiteral("Restoring the portal session from %1").arg(m_sessionFile));
    m_portal.restoreSession([this, deviceId, name](const PortalResult& result) {
        if (!result.ok) {
            printError(result.message);
            printError(QStringLiteral("Sign in with: vantorelle-bridge signin EMAIL"));
            Q_EMIT failed();
            return;
        }
        m_sources.useCloud(deviceId, name);
    });
}

void Watch::printSnapshot()
{
    writeOut(m_live.toJsonLine());
}

void Watch::writeFiles()
{
    const QStringList failures = m_files->update(m_live.fields());
    const QString problem = failures.join(QLatin1Char('\n'));
    if (!problem.isEmpty() && problem != m_filesProblem)
        printError(problem);
    m_filesProblem = problem;
}

void Watch::printStatus()
{
    printError(m_sources.status());
}

} // namespace vantorelle::bridge
