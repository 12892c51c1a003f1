#include "portal_server.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QLocale>
#include <QSslCertificate>
#include <QSslKey>
#include <QUuid>

namespace vantorelle::sim {

namespace {

const QString kSessionCookie = QStringLiteral("vt_session");

HttpResponse codeError(int status, const char* code)
{
    const QJsonObject detail{{QStringLiteral("error"), QLatin1String(code)}};
    return HttpResponse::json({{QStringLiteral("detail"), detail}}, status);
}

HttpResponse detailError(int status, const QString& sentence)
{
    return HttpResponse::json({{QStringLiteral("detail"), sentence}}, status);
}

HttpResponse notAuthenticated()
{
    return HttpResponse::json({{QStringLiteral("detail"), QStringLiteral("Not authenticated")},
                               {QStringLiteral("error"), QStringLiteral("not_authenticated")}},
                              401);
}

QJsonObject bodyOf(const HttpRequest& request)
{
    return QJsonDocument::fromJson(request.body).object();
}

QString text(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

QByteArray httpDate(const QDateTime& time)
{
    return QLocale::c()
        .toString(time.toUTC(), QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'"))
        .toLatin1();
}

QString newToken()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

QJsonObject deviceJson(const PortalServer::Device& device)
{
    return {{QStringLiteral("device_id"), device.id},
            {QStringLiteral("nickname"), device.nickname},
            {QStringLiteral("status"), device.status},
            {QStringLiteral("ble_passkey"), device.blePasskey}};
}

} // namespace

PortalServer::PortalServer(QObject* parent) : QObject(parent)
{
    m_http.setFallback([this](const HttpRequest& request) { return handle(request); });
}

bool PortalServer::start(quint16 port)
{
    return m_http.listen(QHostAddress(QHostAddress::LocalHost), port);
}

bool PortalServer::startTls(const QSslCertificate& certificate, const QSslKey& key, quint16 port)
{
    m_tls = true;
    return m_http.listenTls(certificate, key, QHostAddress(QHostAddress::LocalHost), port);
}

QString PortalServer::baseUrl() const
{
    return m_http.url(QString()).toString();
}

void PortalServer::addAccount(const QString& email, const QString& password, const QString& role,
                              const QString& totpCode)
{
    m_accounts.insert(email, {password, role, totpCode});
}

void PortalServer::addDevice(const QString& owner, const Device& device)
{
    m_devices.append({device, owner, {}, {}});
}

void PortalServer::setLiveData(const QString& deviceId, const QString& sport,
                               const QJsonObject& fields, bool online)
{
    for (DeviceEntry& entry : m_devices) {
        if (entry.device.id != deviceId)
            continue;
        const qint64 seq = entry.envelope.value(QLatin1String("seq")).toInteger() + 1;
        entry.envelope = {{QStringLiteral("type"), QStringLiteral("state")},
                          {QStringLiteral("online"), online},
                          {QStringLiteral("sport"), sport},
                          {QStringLiteral("seq"), seq},
                          {QStringLiteral("ts_ms"), QDateTime::currentMSecsSinceEpoch()},
                          {QStringLiteral("fields"), fields}};
    }
}

void PortalServer::addOutput(const QString& owner, const QJsonObject& output)
{
    m_outputs[owner].append(output);
}

void PortalServer::setFailure(const QString& path, const HttpResponse& response)
{
    m_failures.insert(path, response);
}

void PortalServer::fail(const QString& path, int status)
{
    static const std::pair<int, const char*> codes[] = {{402, "cloud_subscription_required"},
                                                        {429, "rate_limited"},
                                                        {502, "gateway_unreachable"},
                                                        {504, "device_unreachable_or_timeout"}};
    if (status == 401) {
        setFailure(path, notAuthenticated());
        return;
    }
    for (const auto& [known, code] : codes) {
        if (known == status) {
            setFailure(path, codeError(status, code));
            return;
        }
    }
    setFailure(path, HttpResponse::text({}, status));
}

void PortalServer::clearFailure(const QString& path)
{
    m_failures.remove(path);
}

QJsonObject PortalServer::deviceConfig(const QString& deviceId) const
{
    for (const DeviceEntry& entry : m_devices) {
        if (entry.device.id == deviceId)
            return entry.config;
    }
    return {};
}

HttpResponse PortalServer::handle(const HttpRequest& request)
{
    const auto failure = m_failures.constFind(request.path);
    if (failure != m_failures.cend())
        return *failure;

    const QString& path = request.path;
    if (request.method == "POST" && path == u"/auth/login")
        return login(request);
    if (request.method == "POST" && path == u"/auth/login/totp")
        return loginWithCode(request);
    if (request.method == "POST" && path == u"/auth/logout") {
        m_sessions.remove(sessionToken(request));
        return HttpResponse::json({{QStringLiteral("ok"), true}})
            .withHeader("Set-Cookie", kSessionCookie.toLatin1() +
                                          "=; Path=/; Expires=Thu, 01 Jan 1970 00:00:00 GMT");
    }

    const QString email = m_sessions.value(sessionToken(request));
    if (email.isEmpty())
        return notAuthenticated();
    if (request.method == "GET" && path == u"/auth/me")
        return HttpResponse::json({{QStringLiteral("user"), userOf(email)}});
    if (request.method == "GET" && path == u"/api/graphics/outputs")
        return HttpResponse::json({{QStringLiteral("outputs"), m_outputs.value(email)}});
    if (request.method == "GET" && path == u"/devices") {
        QJsonArray devices;
        for (const DeviceEntry& entry : m_devices) {
            if (entry.owner == email)
                devices.append(deviceJson(entry.device));
        }
        return HttpResponse::json({{QStringLiteral("devices"), devices}});
    }
    if (request.method == "POST" && path == u"/devices/link")
        return linkDevice(request, email);
    if (path.startsWith(u"/devices/"))
        return handleDevice(request, email);
    return detailError(404, QStringLiteral("Not Found"));
}

HttpResponse PortalServer::handleDevice(const HttpRequest& request, const QString& email)
{
    // "/devices/ID/rest..." -> ["", "devices", ID, rest...]
    const QStringList parts = request.path.split(QLatin1Char('/'));
    const QString id = parts.value(2);
    const QString action = parts.mid(3).join(QLatin1Char('/'));
    auto entry = std::find_if(m_devices.begin(), m_devices.end(), [&](const DeviceEntry& e) {
        return e.device.id == id && e.owner == email;
    });
    if (entry == m_devices.end())
        return codeError(404, "device_not_found_or_not_owned");

    if (request.method == "GET" && action == u"state") {
        if (entry->envelope.isEmpty())
            return HttpResponse::json({{QStringLiteral("type"), QStringLiteral("pending")},
                                       {QStringLiteral("online"), false}});
        return HttpResponse::json(entry->envelope);
    }
    if (request.method != "POST" && request.method != "PUT")
        return detailError(405, QStringLiteral("Method Not Allowed"));
    if (m_accounts.value(email).role == u"viewer")
        return codeError(403, "insufficient_role");

    const QJsonObject body = bodyOf(request);
    if (request.method == "POST" && parts.value(3) == u"cmd" && parts.size() == 5)
        return commandReply(*entry, parts.value(4), body.value(QLatin1String("args")).toObject());
    if (request.method == "POST" && action == u"config") {
        entry->config = body.value(QLatin1String("config")).toObject();
        return HttpResponse::json(
            {{QStringLiteral("ok"), true}, {QStringLiteral("config"), entry->config}});
    }
    if (request.method == "POST" && action == u"pairing/reveal")
        return HttpResponse::json({{QStringLiteral("ble_passkey"), entry->device.blePasskey}});
    if (request.method == "PUT" && action == u"pairing") {
        if (text(body, "admin_password") != entry->device.adminPassword)
            return detailError(400,
                               QStringLiteral("The device's admin password was not accepted."));
        return HttpResponse::json({{QStringLiteral("ok"), true},
                                   {QStringLiteral("ble_passkey"), entry->device.blePasskey}});
    }
    return detailError(404, QStringLiteral("Not Found"));
}

HttpResponse PortalServer::commandReply(const DeviceEntry& entry, const QString& command,
                                        const QJsonObject& args) const
{
    // An offline device gets the command when it reconnects.
    if (entry.device.status != u"online")
        return HttpResponse::json({{QStringLiteral("ok"), true},
                                   {QStringLiteral("queued"), true},
                                   {QStringLiteral("command"), command}});
    if (command == u"get_status") {
        QJsonObject status{{QStringLiteral("device_id"), entry.device.id},
                           {QStringLiteral("nickname"), entry.device.nickname},
                           {QStringLiteral("online"), true}};
        if (!entry.envelope.isEmpty()) {
            status.insert(QStringLiteral("sport"), entry.envelope.value(QLatin1String("sport")));
            status.insert(QStringLiteral("seq"), entry.envelope.value(QLatin1String("seq")));
        }
        return HttpResponse::json(status);
    }
    return HttpResponse::json({{QStringLiteral("ok"), true},
                               {QStringLiteral("command"), command},
                               {QStringLiteral("args"), args}});
}

HttpResponse PortalServer::login(const HttpRequest& request)
{
    const QJsonObject body = bodyOf(request);
    const QString email = text(body, "email");
    const auto account = m_accounts.constFind(email);
    if (account == m_accounts.cend() || account->password != text(body, "password"))
        return codeError(401, "invalid_credentials");
    if (account->totpCode.isEmpty())
        return signedIn(email);
    const QString challenge = newToken();
    m_challenges.insert(challenge, email);
    return HttpResponse::json(
        {{QStringLiteral("totp_required"), true}, {QStringLiteral("challenge_id"), challenge}});
}

HttpResponse PortalServer::loginWithCode(const HttpRequest& request)
{
    const QJsonObject body = bodyOf(request);
    const QString challenge = text(body, "challenge_id");
    const QString email = m_challenges.value(challenge);
    if (email.isEmpty())
        return detailError(400, QStringLiteral("That sign-in attempt has expired. Start again."));
    if (m_accounts.value(email).totpCode != text(body, "code"))
        return codeError(401, "invalid_totp_code");
    m_challenges.remove(challenge);
    return signedIn(email);
}

HttpResponse PortalServer::linkDevice(const HttpRequest& request, const QString& email)
{
    if (m_accounts.value(email).role == u"viewer")
        return codeError(403, "insufficient_role");
    const QJsonObject body = bodyOf(request);
    for (DeviceEntry& entry : m_devices) {
        if (entry.device.id != text(body, "device_id"))
            continue;
        if (entry.owner == email)
            return HttpResponse::json({{QStringLiteral("ok"), true},
                                       {QStringLiteral("device"), deviceJson(entry.device)}});
        if (!entry.owner.isEmpty())
            break;
        if (!entry.device.claimCode.isEmpty() && entry.device.claimCode != text(body, "code"))
            return codeError(400, "claim_code_device_mismatch");
        entry.owner = email;
        return HttpResponse::json(
            {{QStringLiteral("ok"), true}, {QStringLiteral("device"), deviceJson(entry.device)}});
    }
    return codeError(404, "device_not_found_or_not_owned");
}

HttpResponse PortalServer::signedIn(const QString& email)
{
    const QString token = newToken();
    m_sessions.insert(token, email);
    QByteArray cookie =
        kSessionCookie.toLatin1() + '=' + token.toLatin1() +
        "; Path=/; HttpOnly; Expires=" + httpDate(QDateTime::currentDateTimeUtc().addDays(30));
    if (m_tls)
        cookie += "; Secure";
    return HttpResponse::json({{QStringLiteral("user"), userOf(email)}})
        .withHeader("Set-Cookie", cookie);
}

QString PortalServer::sessionToken(const HttpRequest& request) const
{
    const QList<QByteArray> pairs = request.header("Cookie").split(';');
    for (const QByteArray& pair : pairs) {
        const QByteArray trimmed = pair.trimmed();
        const qsizetype equals = trimmed.indexOf('=');
        if (equals > 0 && trimmed.left(equals) == kSessionCookie.toLatin1())
            return QString::fromLatin1(trimmed.mid(equals + 1));
    }
    return {};
}

QJsonObject PortalServer::userOf(const QString& email) const
{
    return {{QStringLiteral("email"), email},
            {QStringLiteral("role"), m_accounts.value(email).role}};
}

} // namespace vantorelle::sim
