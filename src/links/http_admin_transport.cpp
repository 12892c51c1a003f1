#include "http_admin_transport.h"

#include "reply_limit.h"
#include "version.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QMetaObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QUrl>
#include <QVariant>

namespace vantorelle {

namespace {

constexpr auto HostPrefix = "vantorelle-";

// A parameter as form text: numbers in decimal, bools as words, containers as compact JSON.
QString formText(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QJsonValue::Double:
        return value.toVariant().toString();
    case QJsonValue::Array:
        return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    case QJsonValue::Object:
        return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
    default:
        return {};
    }
}

QByteArray formBody(const QJsonObject& params)
{
    QByteArrayList pairs;
    for (auto it = params.begin(); it != params.end(); ++it)
        pairs.append(QUrl::toPercentEncoding(it.key()) + '=' +
                     QUrl::toPercentEncoding(formText(it.value())));
    return pairs.join('&');
}

// The answer's body as an object: arrays are wrapped, anything that is not JSON becomes null.
QJsonObject bodyObject(const QByteArray& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (document.isObject())
        return document.object();
    if (document.isArray())
        return {{QStringLiteral("value"), document.array()}};
    return {{QStringLiteral("value"), QJsonValue::Null}};
}

QString codeForStatus(int status, const QJsonObject& body)
{
    switch (status) {
    case 400: {
        const QString code = body.value(QStringLiteral("code")).toString();
        return code.isEmpty() ? QStringLiteral("bad_request") : code;
    }
    case 401:
        return QStringLiteral("unauthorized");
    case 403:
        // A stale CSRF token is handled like an expired cookie: the session signs in again.
        return body.value(QStringLiteral("error")).toString() == QLatin1String("csrf_invalid")
                   ? QStringLiteral("unauthorized")
                   : QStringLiteral("forbidden");
    case 429:
        return QStringLiteral("rate_limited");
    case 503:
        return QStringLiteral("unavailable");
    default:
        return QStringLiteral("device_error");
    }
}

QString messageForStatus(int status, const QJsonObject& body)
{
    QString message = body.value(QStringLiteral("message")).toString();
    if (message.isEmpty())
        message = body.value(QStringLiteral("error")).toString();
    if (message.isEmpty())
        message = QStringLiteral("The device answered with an error (%1).").arg(status);
    return message;
}

// Session values go back out as header values as they are; one with a control byte would end
// the header line early and smuggle in lines of its own, so it is not kept.
QByteArray headerValue(const QByteArray& text)
{
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return {};
    }
    return text;
}

// Restarting methods: the device drops the connection instead of answering.
bool dropMeansSuccess(const QString& method)
{
    return method == QLatin1String("reboot") || method == QLatin1String("otaApply");
}

} // namespace

const std::array<HttpAdminRoute, 25>& httpAdminRoutes()
{
    static const std::array<HttpAdminRoute, 25> routes{{
        {"login", "POST", "/login", false},
        {"getStatus", "GET", "/api/status", false},
        {"networkTest", "GET", "/api/network-test", false},
        {"changePassword", "POST", "/api/auth/change-password", false},
        {"ensureApiToken", "POST", "/api/auth/api-token", false},
        {"getSettings", "GET", "/api/settings", false},
        {"setSettings", "POST", "/api/settings", false},
        {"getControllerList", "GET", "/api/controller/list", false},
        {"getControllerConfig", "GET", "/api/controller/config", false},
        {"setControllerConfig", "POST", "/api/controller/config", false},
        {"scanWifi", "GET", "/scan", false},
        {"configureWifi", "POST", "/configure", true},
        {"getState", "GET", "/state", false},
        {"reboot", "POST", "/api/system/reboot", false},
        {"otaCheck", "GET", "/ota/check", false},
        {"otaApply", "POST", "/ota/apply", false},
        {"otaProgress", "GET", "/ota/progress", false},
        {"c6OtaStatus", "GET", "/api/system/c6-ota", false},
        {"c6OtaApply", "POST", "/api/system/c6-ota", false},
        {"getMqttConfig", "GET", "/api/mqtt/broker", false},
        {"setMqttConfig", "POST", "/api/mqtt/broker", false},
        {"getDeviceId", "GET", "/api/device-id", false},
        {"setDeviceId", "POST", "/api/device-id", false},
        {"provision", "POST", "/api/provision", false},
        {"blePasskey", "GET", "/api/auth/ble-passkey", false},
    }};
    return routes;
}

const HttpAdminRoute* findHttpAdminRoute(const QString& method)
{
    for (const HttpAdminRoute& route : httpAdminRoutes()) {
        if (method == QLatin1String(route.method))
            return &route;
    }
    return nullptr;
}

QString normaliseDeviceAddress(const QString& typed)
{
    QString text = typed.trimmed();
    if (const qsizetype scheme = text.indexOf(QLatin1String("://")); scheme >= 0)
        text = text.mid(scheme + 3);
    if (const qsizetype slash = text.indexOf(QLatin1Char('/')); slash >= 0)
        text = text.left(slash);
    text = text.trimmed();
    if (text.isEmpty() || text.contains(QLatin1Char(' ')))
        return {};

    static const QRegularExpression deviceNumber(QStringLiteral("\\A\\d{1,4}\\z"));
    const QString prefix = QString::fromLatin1(HostPrefix);
    if (deviceNumber.match(text).hasMatch())
        return prefix + QStringLiteral("%1.local").arg(text.toInt(), 4, 10, QLatin1Char('0'));
    if (text.startsWith(prefix, Qt::CaseInsensitive) && !text.contains(QLatin1Char('.')))
        return text.toLower() + QStringLiteral(".local");
    return text;
}

HttpAdminAnswer httpAdminAnswer(const QString& method, int status, const QByteArray& body)
{
    if (status == 0) {
        if (dropMeansSuccess(method))
            return {true, {{QStringLiteral("status"), QStringLiteral("ok")}}, {}, {}};
        return {false,
                {},
                QStringLiteral("unreachable"),
                QStringLiteral("Could not reach the device on your network.")};
    }
    const QJsonObject object = bodyObject(body);
    if (status < 200 || status > 299)
        return {false, {}, codeForStatus(status, object), messageForStatus(status, object)};
    return {true, object, {}, {}};
}

HttpAdminSession httpAdminSession(const QByteArray& setCookie, const QJsonObject& loginResult)
{
    // Several Set-Cookie headers arrive joined by '\n'; the session is the first one.
    QByteArray cookie = setCookie;
    if (const qsizetype end = cookie.indexOf('\n'); end >= 0)
        cookie.truncate(end);
    if (const qsizetype end = cookie.indexOf(';'); end >= 0)
        cookie.truncate(end);
    return {headerValue(cookie.trimmed()),
            headerValue(loginResult.value(QStringLiteral("csrf_token")).toString().toUtf8())};
}

HttpAdminTransport::HttpAdminTransport(const QString& host, int port, QObject* parent)
    : RpcTransport(parent), m_host(host), m_port(port)
{}

HttpAdminTransport::~HttpAdminTransport() = default;

void HttpAdminTransport::clearSession()
{
    m_cookie.clear();
    m_csrfToken.clear();
}

void HttpAdminTransport::send(const QByteArray& json)
{
    const QJsonObject request = QJsonDocument::fromJson(json).object();
    const int id = request.value(QStringLiteral("id")).toInt();
    const QString method = request.value(QStringLiteral("method")).toString();
    const QJsonObject params = request.value(QStringLiteral("params")).toObject();

    if (!m_connected)
        return replyLater(id, QStringLiteral("disconnected"),
                          QStringLiteral("Not connected to a device"));
    const HttpAdminRoute* route = findHttpAdminRoute(method);
    if (!route)
        return replyLater(
            id, QStringLiteral("not_available_here"),
            QStringLiteral("This is only available over USB or Bluetooth, not over the network."));

    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(m_host);
    if (m_port > 0)
        url.setPort(m_port);
    url.setPath(QString::fromLatin1(route->path));

    QNetworkRequest http(url);
    http.setRawHeader("Accept", "application/json");
    http.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    http.setTransferTimeout(m_transferTimeoutMs);
    // The session lives in this transport, never in the manager's cookie jar.
    http.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    http.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    if (!m_cookie.isEmpty())
        http.setRawHeader("Cookie", m_cookie);
    if (!m_csrfToken.isEmpty())
        http.setRawHeader("X-CSRF-Token", m_csrfToken);

    QNetworkReply* reply =
        qstrcmp(route->verb, "GET") == 0 ? m_network.get(http) : post(http, *route, params);
    limitReplySize(reply);
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, id, method] { onFinished(reply, id, method); });
}

QNetworkReply* HttpAdminTransport::post(const QNetworkRequest& request, const HttpAdminRoute& route,
                                        const QJsonObject& params)
{
    QNetworkRequest http(request);
    if (route.form) {
        http.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
        return m_network.post(http, formBody(params));
    }
    http.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    return m_network.post(http, QJsonDocument(params).toJson(QJsonDocument::Compact));
}

void HttpAdminTransport::onFinished(QNetworkReply* reply, int id, const QString& method)
{
    reply->deleteLater();
    if (replyWasTooLarge(reply))
        return replyError(id, QStringLiteral("reply_too_large"),
                          QStringLiteral("The device's answer was too large to read."));
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const HttpAdminAnswer answer = httpAdminAnswer(method, status, reply->readAll());
    if (!answer.ok)
        return replyError(id, answer.code, answer.message);
    if (method == QLatin1String("login"))
        storeSession(reply->rawHeader("Set-Cookie"), answer.result);
    this->reply(id, answer.result);
}

void HttpAdminTransport::storeSession(const QByteArray& setCookie, const QJsonObject& body)
{
    const HttpAdminSession session = httpAdminSession(setCookie, body);
    m_cookie = session.cookie;
    m_csrfToken = session.csrfToken;
}

void HttpAdminTransport::reply(int id, const QJsonObject& result)
{
    const QJsonObject document{{QStringLiteral("id"), id},
                               {QStringLiteral("ok"), true},
                               {QStringLiteral("result"), result}};
    Q_EMIT message(QJsonDocument(document).toJson(QJsonDocument::Compact));
}

void HttpAdminTransport::replyError(int id, const QString& code, const QString& message)
{
    const QJsonObject error{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}};
    const QJsonObject document{{QStringLiteral("id"), id},
                               {QStringLiteral("ok"), false},
                               {QStringLiteral("error"), error}};
    Q_EMIT this->message(QJsonDocument(document).toJson(QJsonDocument::Compact));
}

// Refusals decided here still arrive through the event loop, never from inside send().
void HttpAdminTransport::replyLater(int id, const QString& code, const QString& message)
{
    QMetaObject::invokeMethod(
        this, [this, id, code, message] { replyError(id, code, message); }, Qt::QueuedConnection);
}

} // namespace vantorelle
