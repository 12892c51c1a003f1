#pragma once

#include "rpc_transport.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <deque>
#include <functional>

namespace vantorelle {

// The one client of the device request protocol. Sends one request at a time and queues the
// rest, matches replies by id, retries requests the device calls busy, and answers every
// request exactly once.
class RpcClient : public QObject
{
    Q_OBJECT

public:
    using Callback = std::function<void(const RpcResult&)>;

    static constexpr int kDefaultTimeoutMs = 20000;
    static constexpr int kDefaultBusyRetryDelayMs = 250;
    static constexpr int kMaxBusyRetries = 3;

    // `transport` is not owned; it must outlive the client or be destroyed with it.
    explicit RpcClient(RpcTransport* transport, QObject* parent = nullptr);
    ~RpcClient() override;

    // Queues a request; `callback` (may be empty) gets its answer on the event loop's thread.
    void call(const QString& method, const QJsonObject& params, Callback callback,
              int timeoutMs = kDefaultTimeoutMs);
    // Fails the request in flight and every queued one, in order, with the given failure.
    void cancelAll(const QString& code, const QString& message);
    // Nothing in flight and nothing queued (a request waiting for its busy retry is queued).
    bool isIdle() const { return !m_inFlight && m_queue.empty(); }

    // The wait after a busy reply before the request is sent again.
    void setBusyRetryDelay(int ms) { m_busyRetry.setInterval(ms); }
    // The id the next request will carry (1..2147483647), for continuing a numbering.
    void setNextId(qint32 id) { m_nextId = id > 0 ? id : 1; }

private Q_SLOTS:
    void onMessage(const QByteArray& json);
    void onSendFailed(const QString& code, const QString& text);
    void onTimeout();

private:
    struct PendingRequest
    {
        QString method;
        QJsonObject params;
        Callback callback;
        qint32 timeoutMs = kDefaultTimeoutMs;
        qint32 attempts = 0;
    };

    void pump();
    void failFront(const RpcResult& result);
    void sendFront();
    void finish(const RpcResult& result);
    void retryLater();
    RpcResult resultFromReply(const QJsonObject& reply) const;
    qint32 takeId();

    QPointer<RpcTransport> m_transport;
    std::deque<PendingRequest> m_queue;
    bool m_inFlight = false;
    PendingRequest m_current;
    qint32 m_currentId = 0;
    qint32 m_nextId = 1;
    QTimer m_deadline;
    // Holds the pump after a busy reply, so nothing overtakes the request being retried.
    QTimer m_busyRetry;
    bool m_pumping = false;
};

} // namespace vantorelle
