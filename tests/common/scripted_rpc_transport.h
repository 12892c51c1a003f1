#pragma once

#include "admin/rpc_transport.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QList>

#include <functional>

namespace vantorelle::test {

// A request channel for exercising RpcClient without a device: each request sent takes the
// next step of a script. Replies and failures arrive through the event loop, as from a socket;
// a request with no step left goes unanswered.
class ScriptedRpcTransport : public RpcTransport
{
    Q_OBJECT

public:
    // Builds the reply text for one request (given parsed).
    using Reply = std::function<QByteArray(const QJsonObject& request)>;

    using RpcTransport::RpcTransport;

    bool isOpen() const override { return m_open; }
    void setOpen(bool open) { m_open = open; }
    void send(const QByteArray& json) override;

    void answer(Reply reply);
    // {"id":<id>,"ok":true,"result":<result>}; an undefined result is left out.
    void answerOk(const QJsonValue& result = QJsonValue::Undefined);
    // {"id":<id>,"ok":false,"error":<error>}.
    void answerError(const QJsonValue& error);
    void stayQuiet();
    // Reports `sendFailed` later, or from inside send() when `atOnce`.
    void fail(const QString& code, const QString& text, bool atOnce = false);

    // Emits `message` with `json` from the event loop.
    void deliver(const QByteArray& json);

    // Every request sent so far, raw and parsed.
    const QList<QByteArray>& rawRequests() const { return m_raw; }
    QList<QJsonObject> requests() const;
    qint64 lastId() const;

private:
    bool m_open = true;
    QList<std::function<void(const QJsonObject&)>> m_script;
    QList<QByteArray> m_raw;
};

} // namespace vantorelle::test
