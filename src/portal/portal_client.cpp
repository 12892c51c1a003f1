#include "portal_client.h"

#include "reply_limit.h"
#include "tls_support.h"
#include "version.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QTimer>

#include <cmath>

namespace vantorelle {

namespace {

QString codeText(int status, const QString& code)
{
    // The code alone decides these.
    if (code == u"invalid_credentials")
        return QStringLiteral("That email and password did not match. Check them and try again.");
    if (code == u"invalid_totp_code")
        return QStringLiteral("That code was not accepted. Enter the current 6-digit code from "
                              "your authenticator app.");
    // These also follow from the status, whatever the code says.
    if (code == u"rate_limited" || status == 429)
        return QStringLiteral("Too many attempts. Wait a minute and try again.");
    if (code == u"cloud_subscription_required" || status == 402)
        return QStringLiteral("This device needs an active Vantorelle cloud plan for that.");
    if (code == u"device_unreachable_or_timeout" || status == 504)
        return QStringLiteral("The device did not answer. Check that it is powered on and online.");
    if (code == u"gateway_unreachable" || status == 502)
        return QStringLiteral(
            "The Vantorelle service could not reach the live data feed. Try again shortly.");
    if (code == u"device_not_found_or_not_owned" || code == u"claim_code_device_mismatch")
        return QStringLiteral("That device is not on this account.");
    if (code == u"not_authenticated" || status == 401)
        return QStringLiteral("You have been signed out. Sign in again.");
    return {};
}

QString textOf(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

// A page size OBS can draw: whole pixels from 1 to 16384, its largest texture. Anything else
// gives the default.
int dimension(const QJsonValue& value, int fallback)
{
    const double pixels = value.toDouble(-1);
    if (!value.isDouble() || pixels != std::floor(pixels) || pixels < 1 || pixels > 16384)
        return fallback;
    return static_cast<int>(pixels);
}

} // namespace

QString portalErrorText(int status, const QString& code, const QString& detail)
{
    const QString known = codeText(status, code);
    if (!known.isEmpty())
        return known;
    if (status == 403)
        return QStringLiteral("Your account role is not allowed to do that.");
    if (status == 0)
        return QStringLiteral("Could not reach Vantorelle. Check your internet connection.");
    if (!detail.isEmpty())
        return detail;
    return QStringLiteral("Vantorelle returned an error (%1).").arg(status);
}

PortalResult portalResult(int status, bool transferred, const QByteArray& body)
{
    PortalResult result;
    result.status = status;
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (document.isObject())
        result.data = document.object();
    result.ok = transferred && status >= 200 && status <= 299;
    if (!result.ok) {
        const QJsonValue detail = result.data.value(QLatin1String("detail"));
        QString detailText;
        if (detail.isObject())
            result.error = detail.toObject().value(QLatin1String("error")).toString();
        else if (detail.isString())
            detailText = detail.toString();
        if (result.error.isEmpty())
            result.error = result.data.value(QLatin1String("error")).toString();
        result.message = portalErrorText(status, result.error, detailText);
    }
    return result;
}

// --- Jar ---

PortalClient::Jar::Jar(QObject* parent) : QNetworkCookieJar(parent) {}

void PortalClient::Jar::load()
{
    if (m_path.isEmpty())
        return;
    QFile file(m_path);
    if (file.open(QIODevice::ReadOnly))
        loadBytes(file.readAll());
}

void PortalClient::Jar::loadBytes(const QByteArray& bytes)
{
    QList<QNetworkCookie> cookies;
    const QJsonArray lines = QJsonDocument::fromJson(bytes).array();
    for (const QJsonValue& line : lines)
        cookies += QNetworkCookie::parseCookies(line.toString().toUtf8());
    setAllCookies(cookies);
}

void PortalClient::Jar::save() const
{
    if (!m_path.isEmpty())
        saveFileAtomically(m_path, fileBytes(), m_writer);
}

QByteArray PortalClient::Jar::fileBytes() const
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QJsonArray lines;
    for (const QNetworkCookie& cookie : allCookies()) {
        if (!cookie.isSessionCookie() && cookie.expirationDate() <= now)
            continue;
        // The file holds text; a cookie that would read back as another is not kept.
        const QByteArray raw = cookie.toRawForm(QNetworkCookie::Full);
        const QString line = QString::fromUtf8(raw);
        const QList<QNetworkCookie> back = QNetworkCookie::parseCookies(line.toUtf8());
        if (back.size() == 1 && back.first().toRawForm(QNetworkCookie::Full) == raw)
            lines.append(line);
    }
    return QJsonDocument(lines).toJson(QJsonDocument::Compact);
}

void PortalClient::Jar::clear()
{
    setAllCookies({});
    if (!m_path.isEmpty())
        QFile::remove(m_path);
}

// --- PortalClient ---

PortalClient::PortalClient(const QString& baseUrl, QObject* parent)
    : QObject(parent), m_network(new QNetworkAccessManager(this)), m_jar(new Jar(this)),
      m_base(baseUrl)
{
    while (m_base.endsWith(QLatin1Char('/')))
        m_base.chop(1);
    m_network->setCookieJar(m_jar);
    // The access manager adopts the jar; the client keeps it, so it outlives every reply.
    m_jar->setParent(this);
}

// Children go after the client's connections are cut, so replies still in flight are abandoned
// without reaching a callback.
PortalClient::~PortalClient() = default;

void PortalClient::addTrustedCertificates(const QList<QSslCertificate>& certificates)
{
    m_trusted += certificates;
}

void PortalClient::signIn(const QString& email, const QString& password, Callback callback)
{
    const QJsonObject body{{QStringLiteral("email"), email},
                           {QStringLiteral("password"), password}};
    request(
        "POST", QStringLiteral("/auth/login"), body,
        [this, callback = std::move(callback)](const PortalResult& result) {
            if (result.ok && !result.data.value(QLatin1String("totp_required")).toBool())
                applyAccount(result.data);
            if (callback)
                callback(result);
        },
        false);
}

void PortalClient::signInWithCode(const QString& challengeId, const QString& code,
                                  Callback callback)
{
    const QJsonObject body{{QStringLiteral("challenge_id"), challengeId},
                           {QStringLiteral("code"), code}};
    request("POST", QStringLiteral("/auth/login/totp"), body, applyingAccount(std::move(callback)),
            false);
}

void PortalClient::restoreSession(Callback callback)
{
    // The cookies this restore presents; a sign-in running meanwhile brings new ones, which a
    // late refusal of the old session must not throw away.
    const QList<QNetworkCookie> presented = m_jar->cookies();
    request(
        "GET", QStringLiteral("/auth/me"), std::nullopt,
        [this, presented, callback = std::move(callback)](const PortalResult& result) {
            if (result.ok)
                applyAccount(result.data);
            else if (result.status == 401 && m_jar->cookies() == presented)
                m_jar->clear();
            if (callback)
                callback(result);
        },
        false);
}

void PortalClient::signOut()
{
    // The request has taken its cookies already; clearing the jar cannot strip them.
    request("POST", QStringLiteral("/auth/logout"), std::nullopt, {}, false);
    m_jar->clear();
    setSignedIn(false);
}

void PortalClient::listDevices(Callback callback)
{
    request("GET", QStringLiteral("/devices"), std::nullopt, std::move(callback), true);
}

void PortalClient::listOutputs(Callback callback)
{
    request("GET", QStringLiteral("/api/graphics/outputs"), std::nullopt, std::move(callback),
            true);
}

void PortalClient::deviceState(const QString& deviceId, Callback callback)
{
    request("GET", QStringLiteral("/devices/%1/state").arg(deviceId), std::nullopt,
            std::move(callback), true);
}

void PortalClient::sendCommand(const QString& deviceId, const QString& name,
                               const QJsonObject& args, Callback callback)
{
    request("POST", QStringLiteral("/devices/%1/cmd/%2").arg(deviceId, name),
            QJsonObject{{QStringLiteral("args"), args}}, std::move(callback), true);
}

void PortalClient::setConfig(const QString& deviceId, const QJsonObject& config, Callback callback)
{
    request("POST", QStringLiteral("/devices/%1/config").arg(deviceId),
            QJsonObject{{QStringLiteral("config"), config}}, std::move(callback), true);
}

void PortalClient::linkDevice(const QString& deviceId, const QString& via, const QString& code,
                              Callback callback)
{
    QJsonObject body{{QStringLiteral("device_id"), deviceId}, {QStringLiteral("via"), via}};
    if (!code.isEmpty())
        body.insert(QStringLiteral("code"), code);
    request("POST", QStringLiteral("/devices/link"), body, std::move(callback), true);
}

void PortalClient::revealPairing(const QString& deviceId, Callback callback)
{
    request("POST", QStringLiteral("/devices/%1/pairing/reveal").arg(deviceId), std::nullopt,
            std::move(callback), true);
}

void PortalClient::setPairing(const QString& deviceId, const QString& adminPassword,
                              Callback callback)
{
    request("PUT", QStringLiteral("/devices/%1/pairing").arg(deviceId),
            QJsonObject{{QStringLiteral("admin_password"), adminPassword}}, std::move(callback),
            true);
}

QList<PortalDevice> PortalClient::parseDevices(const PortalResult& result)
{
    QList<PortalDevice> devices;
    const QJsonArray array = result.data.value(QLatin1String("devices")).toArray();
    for (const QJsonValue& value : array) {
        const QJsonObject object = value.toObject();
        PortalDevice device{textOf(object, "device_id"), textOf(object, "nickname"),
                            textOf(object, "status"), textOf(object, "ble_passkey")};
        if (!device.deviceId.isEmpty())
            devices.append(device);
    }
    return devices;
}

QList<GraphicsOutput> PortalClient::parseOutputs(const PortalResult& result) const
{
    QList<GraphicsOutput> outputs;
    const QJsonArray array = result.data.value(QLatin1String("outputs")).toArray();
    for (const QJsonValue& value : array) {
        const QJsonObject object = value.toObject();
        GraphicsOutput output;
        output.id = textOf(object, "id");
        output.name = textOf(object, "name");
        output.shareToken = textOf(object, "share_token");
        output.deviceId = textOf(object, "device_id");
        output.width = dimension(object.value(QLatin1String("width")), 1920);
        output.height = dimension(object.value(QLatin1String("height")), 1080);
        // Encoded, so that no token can add a query or leave the page's folder.
        output.url = m_base + QStringLiteral("/graphics/o/") +
                     QString::fromLatin1(QUrl::toPercentEncoding(output.shareToken));
        outputs.append(output);
    }
    return outputs;
}

void PortalClient::request(const QByteArray& verb, const QString& path,
                           const std::optional<QJsonObject>& body, Callback callback,
                           bool signOutOn401)
{
    const QUrl address(m_base + path);
    if (lacksTlsFor(address)) {
        // Answered later, as a network answer would be: callers expect that.
        QTimer::singleShot(0, this, [callback = std::move(callback)] {
            if (callback)
                callback({false, 0, {}, QStringLiteral("no_tls"), noTlsText()});
        });
        return;
    }
    QNetworkRequest outgoing(address);
    outgoing.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    outgoing.setRawHeader("Accept", "application/json");
    outgoing.setRawHeader("User-Agent", userAgent());
    outgoing.setTransferTimeout(m_transferTimeoutMs);
    if (!m_trusted.isEmpty()) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(m_trusted);
        outgoing.setSslConfiguration(tls);
    }
    const QByteArray payload =
        body ? QJsonDocument(*body).toJson(QJsonDocument::Compact) : QByteArray();

    QNetworkReply* reply = nullptr;
    if (verb == "GET")
        reply = m_network->get(outgoing);
    else if (verb == "POST")
        reply = m_network->post(outgoing, payload);
    else if (verb == "PUT")
        reply = m_network->put(outgoing, payload);
    else
        reply = m_network->sendCustomRequest(outgoing, verb, payload);
    limitReplySize(reply);
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, callback = std::move(callback), signOutOn401] {
                complete(reply, callback, signOutOn401);
            });
}

void PortalClient::complete(QNetworkReply* reply, const Callback& callback, bool signOutOn401)
{
    // An aborted reply (time-out) is closed and has no body to read.
    PortalResult result =
        portalResult(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                     reply->error() == QNetworkReply::NoError,
                     reply->isOpen() ? reply->readAll() : QByteArray());

    // Keep a renewed or rotated session cookie across restarts.
    if (m_signedIn && reply->hasRawHeader("Set-Cookie"))
        m_jar->save();

    if (replyWasTooLarge(reply)) {
        result.ok = false;
        result.error = QStringLiteral("reply_too_large");
        result.message = QStringLiteral("The portal's answer was too large to read.");
    } else if (!result.ok && result.status == 401 && signOutOn401) {
        setSignedIn(false);
    }

    reply->deleteLater();
    if (callback)
        callback(result);
}

PortalClient::Callback PortalClient::applyingAccount(Callback callback)
{
    return [this, callback = std::move(callback)](const PortalResult& result) {
        if (result.ok)
            applyAccount(result.data);
        if (callback)
            callback(result);
    };
}

void PortalClient::applyAccount(const QJsonObject& data)
{
    const QJsonObject user = data.value(QLatin1String("user")).toObject();
    m_email = user.value(QLatin1String("email")).toString();
    m_role = user.value(QLatin1String("role")).toString();
    setSignedIn(true);
    m_jar->save();
}

void PortalClient::setSignedIn(bool signedIn)
{
    if (m_signedIn == signedIn)
        return;
    m_signedIn = signedIn;
    Q_EMIT signedInChanged(signedIn);
}

} // namespace vantorelle
