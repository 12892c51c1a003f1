#pragma once

#include "sim/admin_responder.h"
#include "sim/game.h" // the responder's inline game setter needs the whole class
#include "sim/http_server.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSet>
#include <QString>

namespace vantorelle::sim {

struct LanRoute;

// A device on the local network: serves the HTTP admin API on 127.0.0.1 and answers through its
// own AdminResponder, so results match those over USB. Signing in hands out a session cookie
// and a CSRF token; every other route needs the cookie, and every POST the current token.
class LanDevice : public QObject
{
    Q_OBJECT

public:
    static constexpr int kDefaultWifiJoinMs = 1500;
    static constexpr int kDefaultRebootDowntimeMs = 3000;

    explicit LanDevice(QObject* parent = nullptr);
    ~LanDevice() override;

    // Listens on 127.0.0.1 at `port`; 0 lets the system choose.
    bool start(quint16 port = 0);
    quint16 port() const { return m_port; }
    // "127.0.0.1:<port>", the address a network link takes.
    QString address() const;
    AdminResponder& responder() { return m_responder; }
    HttpServer& http() { return m_http; }

    // Requests with the old cookie are refused with 401 {"error":"unauthorized"} from now on.
    void forgetSession();
    // POSTs with the old token are refused with 403 {"error":"csrf_invalid"} from now on.
    void invalidateCsrf();
    // While on, sign-in attempts are refused with 429.
    void setRateLimited(bool on) { m_rateLimited = on; }
    // While on, requests on `path` are never answered.
    void setStalled(const QString& path, bool on);
    // After a Wi-Fi change the provisioning state stays "pending" for `afterMs`, then becomes
    // `state` ("ok" or "reverted") with `detail`. Without it the device's own verdict is used.
    void setWifiJoinOutcome(const QString& state, const QString& detail, int afterMs);
    // How long the device is away after a reboot before it listens again.
    void setRebootDowntime(int ms) { m_rebootDowntimeMs = ms; }

    // The current session cookie value and CSRF token (empty when nobody is signed in).
    QByteArray session() const { return m_session; }
    QByteArray csrfToken() const { return m_csrf; }

private:
    HttpResponse serve(const LanRoute& route, const HttpRequest& request);
    HttpResponse login(const QJsonObject& params);
    HttpResponse reboot();
    HttpResponse call(const QString& method, const QJsonObject& params);
    bool hasSession(const HttpRequest& request) const;
    void overlayWifiProvision(QJsonObject& status) const;
    void restart();

    HttpServer m_http;
    AdminResponder m_responder;
    quint16 m_port = 0;
    int m_nextRequestId = 1;
    QByteArray m_session;
    QByteArray m_csrf;
    bool m_rateLimited = false;
    QSet<QString> m_stalledPaths;
    int m_rebootDowntimeMs = kDefaultRebootDowntimeMs;

    QString m_joinState; // empty: the responder's own verdict stands
    QString m_joinDetail;
    int m_joinAfterMs = kDefaultWifiJoinMs;
    bool m_joining = false;
    QElapsedTimer m_joinClock;
};

} // namespace vantorelle::sim
