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

// What one HTTP answer of the device means for the request it answers.
struct HttpAdminAnswer
{
    bool ok = false;
    QJsonObject result; // the reply's result when `ok`
    QString code;       // the reply's error code otherwise
    QString message;    // and its sentence
};

// Turns the HTTP status (0 when no answer arrived) and body of an answer to `method` into the
// reply. An answer that is not a JSON object is wrapped: an array as "value", anything else as a
// null "value".
HttpAdminAnswer httpAdminAnswer(const QString& method, int status, const QByteArray& body);

// The session a `login` answer hands out: its cookie and its CSRF token, sent back as they are.
struct HttpAdminSession
{
    QByteArray cookie;
    QByteArray csrfToken;
};

// `setCookie` is the answer's Set-Cookie value; only the first cookie's name=value is kept. A value
// holding a control byte is left empty: it could not go back out as a header.
HttpAdminSession httpAdminSession(const QByteArray& setCookie, const QJsonObject& loginResult);

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
