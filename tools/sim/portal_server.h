#pragma once

#include "sim/http_server.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>

class QSslCertificate;
class QSslKey;

namespace vantorelle::sim {

// The maker's cloud portal on 127.0.0.1, over HTTP or TLS, with accounts, devices and graphics
// outputs added by the test or the demo.
//
// Signing in sets the cookie "vt_session" (Path=/, HttpOnly, an Expires date 30 days ahead, and
// Secure over TLS); every route except "/auth/login", "/auth/login/totp" and "/auth/logout" wants
// it and answers 401 {"detail":"Not authenticated","error":"not_authenticated"} without it.
//
// Routes and reply bodies:
// - POST "/auth/login" {"email","password"}: {"user":{"email","role"}}; for an account with a
//   one-time code {"totp_required":true,"challenge_id":...} and no cookie yet. A wrong pair:
//   401 {"detail":{"error":"invalid_credentials"}}.
// - POST "/auth/login/totp" {"challenge_id","code"}: as a sign-in without a second step; a wrong
//   code: 401 {"detail":{"error":"invalid_totp_code"}}; an unknown challenge: 400 with a
//   "detail" sentence.
// - GET "/auth/me": {"user":{...}}. POST "/auth/logout": {"ok":true}, ends the session.
// - GET "/devices": {"devices":[{"device_id","nickname","status","ble_passkey"}]}.
// - GET "/devices/ID/state": the device's last envelope with its kind and online flag on top:
//     online:  {"type":"state","online":true,"sport":...,"seq":n,"ts_ms":n,"fields":{...}}
//     offline: the same with "online":false (the last scores it sent)
//     pending: {"type":"pending","online":false} (it never sent scoreboard data)
// - POST "/devices/ID/cmd/NAME" {"args"}: {"ok":true,"command":NAME,"args":{...}}; "get_status"
//   answers {"device_id","nickname","online":true} plus "sport" and "seq" once it sent scores.
//   A device whose status is not "online" queues every command: {"ok":true,"queued":true,
//   "command":NAME}.
// - POST "/devices/ID/config" {"config"}: {"ok":true,"config":{...}}; the config is kept.
// - POST "/devices/link" {"device_id","via","code"?}: {"ok":true,"device":{...}} for a device
//   that nobody owns; a wrong claim code: 400 {"detail":{"error":"claim_code_device_mismatch"}}.
// - POST "/devices/ID/pairing/reveal": {"ble_passkey":...}.
// - PUT "/devices/ID/pairing" {"admin_password"}: {"ok":true,"ble_passkey":...}, or 400 with a
//   "detail" sentence when the password is not the device's.
// - GET "/api/graphics/outputs": {"outputs":[...]} as added.
// A device id that is unknown or on another account: 404
// {"detail":{"error":"device_not_found_or_not_owned"}}. Changes (commands, config, linking,
// pairing) by a "viewer" account: 403 {"detail":{"error":"insufficient_role"}}.
class PortalServer : public QObject
{
    Q_OBJECT

public:
    struct Device
    {
        QString id;
        QString nickname;
        QString status = QStringLiteral("online");
        QString blePasskey = {};
        QString adminPassword = {}; // PUT pairing wants it
        QString claimCode = {};     // linking wants it when set
    };

    explicit PortalServer(QObject* parent = nullptr);

    // Listens on 127.0.0.1 at `port`; 0 lets the system choose.
    bool start(quint16 port = 0);
    bool startTls(const QSslCertificate& certificate, const QSslKey& key, quint16 port = 0);
    // "http://127.0.0.1:<port>" or "https://...", without a trailing slash.
    QString baseUrl() const;

    // `totpCode`: when set, signing in takes a second step with this code.
    void addAccount(const QString& email, const QString& password,
                    const QString& role = QStringLiteral("owner"), const QString& totpCode = {});
    // `owner` empty: nobody owns it yet and "/devices/link" can claim it.
    void addDevice(const QString& owner, const Device& device);
    // The device has sent scores; `online` says whether it is still live.
    void setLiveData(const QString& deviceId, const QString& sport, const QJsonObject& fields,
                     bool online = true);
    void addOutput(const QString& owner, const QJsonObject& output);

    // Answers every request on `path` with `response` until cleared.
    void setFailure(const QString& path, const HttpResponse& response);
    // The same with the portal's own body for 401, 402, 429, 502 or 504.
    void fail(const QString& path, int status);
    void clearFailure(const QString& path);
    // Forgets every session, as when they expire on the portal.
    void endSessions() { m_sessions.clear(); }

    QJsonObject deviceConfig(const QString& deviceId) const;
    HttpServer& http() { return m_http; }

private:
    struct Account
    {
        QString password;
        QString role;
        QString totpCode;
    };
    struct DeviceEntry
    {
        Device device;
        QString owner;
        QJsonObject envelope; // empty: pending
        QJsonObject config;
    };

    HttpResponse handle(const HttpRequest& request);
    HttpResponse handleDevice(const HttpRequest& request, const QString& email);
    HttpResponse login(const HttpRequest& request);
    HttpResponse loginWithCode(const HttpRequest& request);
    HttpResponse commandReply(const DeviceEntry& entry, const QString& command,
                              const QJsonObject& args) const;
    HttpResponse linkDevice(const HttpRequest& request, const QString& email);
    HttpResponse signedIn(const QString& email);
    QString sessionToken(const HttpRequest& request) const;
    QJsonObject userOf(const QString& email) const;

    HttpServer m_http;
    bool m_tls = false;
    QHash<QString, Account> m_accounts;
    QHash<QString, QString> m_sessions;   // session token -> e-mail
    QHash<QString, QString> m_challenges; // challenge id -> e-mail
    QList<DeviceEntry> m_devices;
    QHash<QString, QJsonArray> m_outputs; // owner -> outputs
    QHash<QString, HttpResponse> m_failures;
};

} // namespace vantorelle::sim
