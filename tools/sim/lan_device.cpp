#include "sim/lan_device.h"

#include <QJsonDocument>
#include <QTimer>
#include <QUrlQuery>
#include <QUuid>

namespace vantorelle::sim {

// One request method of the device's HTTP API and where the device serves it.
struct LanRoute
{
    const char* method;
    const char* verb;
    const char* path;
    bool form; // parameters arrive as application/x-www-form-urlencoded instead of JSON
};

namespace {

// The routes as the device's firmware serves them; kept apart from the plug-in's own table so
// that a wrong path on either side shows.
constexpr LanRoute Routes[] = {
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
};

QByteArray randomToken()
{
    return QUuid::createUuid().toRfc4122().toHex();
}

HttpResponse failure(int status, const QString& error, const QString& message)
{
    QJsonObject body{{QStringLiteral("error"), error}, {QStringLiteral("message"), message}};
    if (status == 400)
        body.insert(QStringLiteral("code"), error);
    return HttpResponse::json(body, status);
}

// Device error codes as HTTP statuses; codes without a status of their own travel in a 400.
int statusForCode(const QString& code)
{
    if (code == QLatin1String("unauthorized"))
        return 401;
    if (code == QLatin1String("forbidden"))
        return 403;
    if (code == QLatin1String("rate_limited"))
        return 429;
    if (code == QLatin1String("unavailable"))
        return 503;
    return 400;
}

QJsonObject paramsOf(const LanRoute& route, const HttpRequest& request)
{
    if (qstrcmp(route.verb, "GET") == 0)
        return {};
    if (!route.form)
        return QJsonDocument::fromJson(request.body).object();
    QJsonObject params;
    const QUrlQuery form(QString::fromUtf8(request.body));
    for (const auto& [key, value] : form.queryItems(QUrl::FullyDecoded))
        params.insert(key, value);
    return params;
}

} // namespace

LanDevice::LanDevice(QObject* parent) : QObject(parent)
{
    for (const LanRoute& route : Routes) {
        m_http.route(route.verb, QString::fromLatin1(route.path),
                     [this, &route](const HttpRequest& request) { return serve(route, request); });
    }
}

LanDevice::~LanDevice() = default;

bool LanDevice::start(quint16 port)
{
    if (!m_http.listen(QHostAddress(QHostAddress::LocalHost), port))
        return false;
    m_port = m_http.port();
    return true;
}

QString LanDevice::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(m_port);
}

void LanDevice::forgetSession()
{
    m_session.clear();
    m_csrf.clear();
    m_responder.forgetLogin();
}

void LanDevice::invalidateCsrf()
{
    if (!m_csrf.isEmpty())
        m_csrf = randomToken();
}

void LanDevice::setStalled(const QString& path, bool on)
{
    if (on)
        m_stalledPaths.insert(path);
    else
        m_stalledPaths.remove(path);
}

void LanDevice::setWifiJoinOutcome(const QString& state, const QString& detail, int afterMs)
{
    m_joinState = state;
    m_joinDetail = detail;
    m_joinAfterMs = afterMs;
}

HttpResponse LanDevice::serve(const LanRoute& route, const HttpRequest& request)
{
    if (m_stalledPaths.contains(request.path)) {
        HttpResponse never;
        never.stall = true;
        return never;
    }
    const QString method = QString::fromLatin1(route.method);
    const QJsonObject params = paramsOf(route, request);
    if (method == QLatin1String("login"))
        return login(params);
    if (!hasSession(request))
        return failure(401, QStringLiteral("unauthorized"), QStringLiteral("Sign in first."));
    if (request.method == "POST" && request.header("X-CSRF-Token") != m_csrf)
        return failure(403, QStringLiteral("csrf_invalid"),
                       QStringLiteral("The security token has expired. Sign in again."));
    if (method == QLatin1String("reboot"))
        return reboot();

    HttpResponse response = call(method, params);
    if (method == QLatin1String("configureWifi") && response.status == 200) {
        m_joining = true;
        m_joinClock.start();
    }
    if (method == QLatin1String("getStatus") && response.status == 200) {
        QJsonObject status = QJsonDocument::fromJson(response.body).object();
        overlayWifiProvision(status);
        response = HttpResponse::json(status);
    }
    return response;
}

HttpResponse LanDevice::login(const QJsonObject& params)
{
    if (m_rateLimited)
        return failure(429, QStringLiteral("rate_limited"),
                       QStringLiteral("Too many sign-in attempts. Wait a minute and try again."));
    const HttpResponse answer = call(QStringLiteral("login"), params);
    QJsonObject result = QJsonDocument::fromJson(answer.body).object();
    if (answer.status != 200) {
        // A wrong password is an authentication failure, not a malformed request.
        if (result.value(QStringLiteral("error")).toString() == QLatin1String("bad_password"))
            return failure(401, QStringLiteral("bad_password"),
                           result.value(QStringLiteral("message")).toString());
        return answer;
    }
    m_session = randomToken();
    m_csrf = result.value(QStringLiteral("csrf_token")).toString().toUtf8();
    if (m_csrf.isEmpty()) {
        m_csrf = randomToken();
        result.insert(QStringLiteral("csrf_token"), QString::fromLatin1(m_csrf));
    }
    return HttpResponse::json(result).withHeader("Set-Cookie",
                                                 "session=" + m_session + "; Path=/; HttpOnly");
}

// The device restarts: the connection drops unanswered, the session is gone, and the device
// listens again on the same port after its downtime.
HttpResponse LanDevice::reboot()
{
    const HttpResponse answer = call(QStringLiteral("reboot"), {});
    if (answer.status != 200)
        return answer;
    forgetSession();
    QTimer::singleShot(0, this, &LanDevice::restart);
    HttpResponse never;
    never.stall = true;
    return never;
}

void LanDevice::restart()
{
    m_http.close();
    QTimer::singleShot(m_rebootDowntimeMs, this,
                       [this] { m_http.listen(QHostAddress(QHostAddress::LocalHost), m_port); });
}

HttpResponse LanDevice::call(const QString& method, const QJsonObject& params)
{
    const QJsonObject reply =
        m_responder.handle(QJsonObject{{QStringLiteral("id"), m_nextRequestId++},
                                       {QStringLiteral("method"), method},
                                       {QStringLiteral("params"), params}});
    if (reply.value(QStringLiteral("ok")).toBool())
        return HttpResponse::json(reply.value(QStringLiteral("result")).toObject());
    const QJsonObject error = reply.value(QStringLiteral("error")).toObject();
    const QString code = error.value(QStringLiteral("code")).toString();
    return failure(statusForCode(code), code, error.value(QStringLiteral("message")).toString());
}

bool LanDevice::hasSession(const HttpRequest& request) const
{
    if (m_session.isEmpty())
        return false;
    for (const QByteArray& cookie : request.header("Cookie").split(';')) {
        if (cookie.trimmed() == "session=" + m_session)
            return true;
    }
    return false;
}

// A Wi-Fi change takes a while: "pending" first, then the outcome.
void LanDevice::overlayWifiProvision(QJsonObject& status) const
{
    if (!m_joining)
        return;
    QJsonObject provision = status.value(QStringLiteral("wifi_provision")).toObject();
    const qint64 elapsed = m_joinClock.elapsed();
    if (elapsed < m_joinAfterMs) {
        provision.insert(QStringLiteral("state"), QStringLiteral("pending"));
        provision.insert(QStringLiteral("detail"), QString());
        provision.insert(QStringLiteral("elapsed_ms"), elapsed);
    } else {
        if (!m_joinState.isEmpty()) {
            provision.insert(QStringLiteral("state"), m_joinState);
            provision.insert(QStringLiteral("detail"), m_joinDetail);
        }
        provision.insert(QStringLiteral("elapsed_ms"), m_joinAfterMs);
    }
    status.insert(QStringLiteral("wifi_provision"), provision);
}

} // namespace vantorelle::sim
