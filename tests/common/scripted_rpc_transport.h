#pragma once

#include "rpc_transport.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>

#include <functional>
#include <optional>

namespace vantorelle::test {

// A request channel for exercising RpcClient without a device. Each request takes the next step of
// a script; with none left, `answers` (when set) answers by method: a result (an object), results
// in turn (an array, its last one repeating) or a refusal (its message); other methods succeed
// with an empty result. Replies come through the event loop, as from a socket.
class ScriptedRpcTransport : public RpcTransport
{
    Q_OBJECT

public:
    // Builds the reply text for one request.
    using Reply = std::function<QByteArray(const QJsonObject& request)>;
    using RpcTransport::RpcTransport;

    bool isOpen() const override { return m_open; }
    void setOpen(bool open) { m_open = open; }
    void send(const QByteArray& json) override;

    void answer(Reply reply);
    // {"id":<id>,"ok":true,"result":<result>} and {"id":<id>,"ok":false,"error":<error>}; an
    // undefined result is left out.
    void answerOk(const QJsonValue& result = QJsonValue::Undefined);
    void answerError(const QJsonValue& error);
    void stayQuiet()
    {
        m_script.append([](const QJsonObject&) {});
    }
    // Reports `sendFailed` later, or from inside send() when `atOnce`.
    void fail(const QString& code, const QString& text, bool atOnce = false);
    // Emits `message` with `json` from the event loop.
    void deliver(const QByteArray& json);

    // Every request sent so far, raw and parsed.
    const QList<QByteArray>& rawRequests() const { return m_raw; }
    QList<QJsonObject> requests() const;
    // The requests from the `from`th on, in compact JSON: each its method, with its parameters
    // ([method, params]) unless they are empty.
    QByteArray sent(qsizetype from) const;

    std::optional<QJsonObject> answers;

private:
    QByteArray answerByMethod(const QJsonObject& request);

    bool m_open = true;
    QList<std::function<void(const QJsonObject&)>> m_script;
    QList<QByteArray> m_raw;
    QHash<QString, qsizetype> m_answered;
};

} // namespace vantorelle::test
