#include "rpc_client.h"

#include <QJsonDocument>
#include <QJsonValue>

#include <limits>
#include <utility>

namespace vantorelle {

RpcClient::RpcClient(RpcTransport* transport, QObject* parent)
    : QObject(parent), m_transport(transport)
{
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, &RpcClient::onTimeout);
    m_busyRetry.setSingleShot(true);
    m_busyRetry.setInterval(kDefaultBusyRetryDelayMs);
    connect(&m_busyRetry, &QTimer::timeout, this, &RpcClient::pump);
    if (transport) {
        connect(transport, &RpcTransport::message, this, &RpcClient::onMessage);
        connect(transport, &RpcTransport::sendFailed, this, &RpcClient::onSendFailed);
    }
}

// Queued callbacks are dropped uncalled: whoever destroys the client is done with its answers.
RpcClient::~RpcClient() = default;

void RpcClient::call(const QString& method, const QJsonObject& params, Callback callback,
                     int timeoutMs)
{
    m_queue.push_back({method, params, std::move(callback), timeoutMs, 0});
    pump();
}

void RpcClient::cancelAll(const QString& code, const QString& message)
{
    m_busyRetry.stop();
    const std::deque<PendingRequest> taken = std::exchange(m_queue, {});
    const RpcResult result = RpcResult::failure(code, message);
    if (m_inFlight)
        finish(result);
    for (const PendingRequest& request : taken) {
        if (request.callback)
            request.callback(result);
    }
}

void RpcClient::onMessage(const QByteArray& json)
{
    if (!m_inFlight)
        return;
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject())
        return;
    const QJsonObject reply = document.object();
    // A late answer to an earlier request must not finish the current one.
    if (reply.value(QLatin1String("id")).toInt(-1) != m_currentId)
        return;
    const RpcResult result = resultFromReply(reply);
    if (!result.ok && result.code == QLatin1String("busy") &&
        m_current.attempts < kMaxBusyRetries) {
        retryLater();
        return;
    }
    finish(result);
}

void RpcClient::onSendFailed(const QString& code, const QString& text)
{
    if (m_inFlight)
        finish(RpcResult::failure(code, text));
}

void RpcClient::onTimeout()
{
    if (!m_inFlight)
        return;
    finish(RpcResult::failure(
        QStringLiteral("timeout"),
        QStringLiteral("The device did not answer '%1' in time").arg(m_current.method)));
}

// Runs as a loop rather than recursively: callbacks that queue requests or fail synchronously
// re-enter here, and the loop already running picks up what they changed.
void RpcClient::pump()
{
    if (m_pumping)
        return;
    m_pumping = true;
    const QPointer<RpcClient> alive(this);
    while (!m_inFlight && !m_queue.empty() && !m_busyRetry.isActive()) {
        if (m_transport && m_transport->isOpen())
            sendFront();
        else
            failFront(RpcResult::failure(QStringLiteral("disconnected"),
                                         QStringLiteral("Not connected to a device")));
        if (!alive)
            return;
    }
    m_pumping = false;
}

void RpcClient::failFront(const RpcResult& result)
{
    const PendingRequest request = std::move(m_queue.front());
    m_queue.pop_front();
    if (request.callback)
        request.callback(result);
}

void RpcClient::sendFront()
{
    m_current = std::move(m_queue.front());
    m_queue.pop_front();
    m_inFlight = true;
    m_currentId = takeId();
    const QJsonObject request{{QLatin1String("id"), m_currentId},
                              {QLatin1String("method"), m_current.method},
                              {QLatin1String("params"), m_current.params}};
    // Started first, so a transport that fails inside send() finds the request in flight.
    m_deadline.start(m_current.timeoutMs);
    m_transport->send(QJsonDocument(request).toJson(QJsonDocument::Compact));
}

void RpcClient::finish(const RpcResult& result)
{
    m_deadline.stop();
    m_inFlight = false;
    const Callback callback = std::exchange(m_current, {}).callback;
    const QPointer<RpcClient> alive(this);
    if (callback)
        callback(result);
    if (alive)
        pump();
}

void RpcClient::retryLater()
{
    PendingRequest retry = std::exchange(m_current, {});
    ++retry.attempts;
    m_inFlight = false;
    m_deadline.stop();
    m_queue.push_front(std::move(retry));
    m_busyRetry.start();
}

RpcResult RpcClient::resultFromReply(const QJsonObject& reply) const
{
    if (reply.value(QLatin1String("ok")).toBool(false)) {
        const QJsonValue result = reply.value(QLatin1String("result"));
        if (result.isObject())
            return RpcResult::success(result.toObject());
        if (result.isUndefined())
            return RpcResult::success({});
        return RpcResult::success({{QLatin1String("value"), result}});
    }
    const QJsonObject error = reply.value(QLatin1String("error")).toObject();
    return RpcResult::failure(
        error.value(QLatin1String("code")).toString(QStringLiteral("device_error")),
        error.value(QLatin1String("message"))
            .toString(QStringLiteral("The device rejected '%1'").arg(m_current.method)));
}

qint32 RpcClient::takeId()
{
    const qint32 id = m_nextId;
    m_nextId = id == std::numeric_limits<qint32>::max() ? 1 : id + 1;
    return id;
}

} // namespace vantorelle
