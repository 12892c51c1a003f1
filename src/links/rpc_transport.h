#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>

namespace vantorelle {

// The answer to one device request: a result, a device error, a transport failure or a
// time-out.
struct RpcResult
{
    bool ok = false;
    QJsonObject result; // empty on failure
    QString code;       // machine word of a failure; empty on success
    QString message;    // sentence for the user on failure; empty on success

    static RpcResult success(const QJsonObject& result) { return {true, result, {}, {}}; }
    static RpcResult failure(const QString& code, const QString& message)
    {
        return {false, {}, code, message};
    }
};

// The request channel to one device. It carries whole JSON documents and knows nothing of
// their meaning; the RpcClient above it matches replies to requests.
class RpcTransport : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~RpcTransport() override;

    // Whether a request can be handed over now; asked before every send.
    virtual bool isOpen() const = 0;
    // Hands over one compact JSON request. The reply arrives as `message`; a request that
    // cannot be delivered or answered is reported through `sendFailed`.
    virtual void send(const QByteArray& json) = 0;

Q_SIGNALS:
    // One complete reply document from the device.
    void message(const QByteArray& json);
    // The request in flight failed: a short machine word and a sentence for the user.
    void sendFailed(const QString& code, const QString& text);
};

} // namespace vantorelle
