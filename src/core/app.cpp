#include "app.h"

#include "live/hosted_server.h"

#include <obs-module.h>

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

App::App(const QString& settingsPath, QObject* parent) : QObject(parent)
{
    m_settings.load(settingsPath);

    m_server = new HostedServer(&m_live, this);
    m_server->setHandler([this](const QString& op, const QJsonObject& request) {
        return handleServerRequest(op, request);
    });
    connect(&m_live, &LiveData::changed, m_server, &HostedServer::broadcast);
    connect(m_server, &HostedServer::clientsChanged, this, &App::serverStateChanged);

    applyServerSettings();
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
