#pragma once

#include "rpc_transport.h"

#include <QByteArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QString>

#include <array>

class QNetworkReply;

namespace vantorelle {

// One request method of the device's local HTTP API and where it goes.
struct HttpAdminRoute
{
    const char* method;
    const char* verb; // "GET" or "POST"
    const char* path;
    bool form; // parameters posted as application/x-www-form-urlencoded instead of JSON
};

// Every method the device answers over its HTTP API, in lookup order.
const std::array<HttpAdminRoute, 25>& httpAdminRoutes();
// The route of `method` (exact, case-sensitive), or null when the network does not offer it.
const HttpAdminRoute* findHttpAdminRoute(const QString& method);

// Turns what a user typed as a device address into a host name; empty when unusable. A device
// number ("12") becomes its mDNS name ("vantorelle-0012.local").
QString normaliseDeviceAddress(const QString& typed);

// The admin request channel to a device on the local network. Each request document becomes one
// HTTP request by the route table, and each HTTP answer becomes a reply document emitted as
// `message`. Carries the session cookie and the CSRF token that `login` hands out.
class HttpAdminTransport : public RpcTransport
{
    Q_OBJECT

public:
    static constexpr int kDefaultTransferTimeoutMs = 30000;

    // `port` 0 means the default port of http.
    HttpAdminTransport(const QString& host, int port, QObject* parent = nullptr);
    ~HttpAdminTransport() override;

    bool isOpen() const override { return m_connected; }
    void send(const QByteArray& json) override;

    void setConnected(bool connected) { m_connected = connected; }
    // Forgets the session cookie and the CSRF token.
    void clearSession();
    QByteArray cookie() const { return m_cookie; }
    QByteArray csrfToken() const { return m_csrfToken; }
    // Longest wait for a whole answer; beyond it the device counts as unreachable.
    void setTransferTimeout(int ms) { m_transferTimeoutMs = ms; }

    QString host() const { return m_host; }
    int port() const { return m_port; }

private:
    QNetworkReply* post(const QNetworkRequest& request, const HttpAdminRoute& route,
                        const QJsonObject& params);
    void onFinished(QNetworkReply* reply, int id, const QString& method);
    void storeSession(const QByteArray& setCookie, const QJsonObject& body);
    void reply(int id, const QJsonObject& result);
    void replyError(int id, const QString& code, const QString& message);
    void replyLater(int id, const QString& code, const QString& message);

    QNetworkAccessManager m_network;
    QString m_host;
    int m_port = 0;
    bool m_connected = false;
    QByteArray m_cookie;
    QByteArray m_csrfToken;
    int m_transferTimeoutMs = kDefaultTransferTimeoutMs;
};

} // namespace vantorelle
