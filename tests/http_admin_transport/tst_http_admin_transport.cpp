#include "http_admin_transport.h"
#include "rpc_client.h"
#include "sim/http_server.h"
#include "version.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <memory>
#include <optional>

using namespace vantorelle;
using namespace Qt::StringLiterals;
using sim::HttpRequest;
using sim::HttpResponse;

class tst_HttpAdminTransport : public QObject
{
    Q_OBJECT
    std::unique_ptr<sim::HttpServer> m_server;
    std::unique_ptr<HttpAdminTransport> m_transport;
    std::unique_ptr<RpcClient> m_client;
    // The answer as "result" or "code: message"; the client's own deadline ends the wait.
    QString call(const QString& method, const QJsonObject& params = {})
    {
        std::optional<RpcResult> r;
        m_client->call(
            method, params, [&r](const RpcResult& result) { r = result; }, 5000);
        (void)QTest::qWaitFor([&r] { return r.has_value(); }, 10000);
        return !r      ? u"no answer"_s
               : r->ok ? QString::fromUtf8(QJsonDocument(r->result).toJson(QJsonDocument::Compact))
                       : r->code + ": " + r->message;
    }
    void answerAll(const HttpResponse& response)
    {
        m_server->setFallback([response](const HttpRequest&) { return response; });
    }
    const HttpRequest& sent() const { return m_server->requests().constLast(); }
private Q_SLOTS:
    void init()
    {
        m_client.reset();
        m_server = std::make_unique<sim::HttpServer>();
        QVERIFY(m_server->listen());
        m_transport = std::make_unique<HttpAdminTransport>(u"127.0.0.1"_s, m_server->port());
        m_transport->setConnected(true);
        m_client = std::make_unique<RpcClient>(m_transport.get());
        answerAll(HttpResponse::json({}));
    }
    void routes_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QByteArray>("verb");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("type"); // of the body
        const auto row = [](const char* method, const char* verb, const char* path,
                            bool form = false) {
            QTest::newRow(method) << method << QByteArray(verb) << path
                                  << (qstrcmp(verb, "GET") == 0 ? ""_ba
                                      : form ? "application/x-www-form-urlencoded"_ba
                                             : "application/json"_ba);
        };
        row("login", "POST", "/login");
        row("getStatus", "GET", "/api/status");
        row("networkTest", "GET", "/api/network-test");
        row("changePassword", "POST", "/api/auth/change-password");
        row("ensureApiToken", "POST", "/api/auth/api-token");
        row("getSettings", "GET", "/api/settings");
        row("setSettings", "POST", "/api/settings");
        row("getControllerList", "GET", "/api/controller/list");
        row("getControllerConfig", "GET", "/api/controller/config");
        row("setControllerConfig", "POST", "/api/controller/config");
        row("scanWifi", "GET", "/scan");
        row("configureWifi", "POST", "/configure", true);
        row("getState", "GET", "/state");
        row("reboot", "POST", "/api/system/reboot");
        row("otaCheck", "GET", "/ota/check");
        row("otaApply", "POST", "/ota/apply");
        row("otaProgress", "GET", "/ota/progress");
        row("c6OtaStatus", "GET", "/api/system/c6-ota");
        row("c6OtaApply", "POST", "/api/system/c6-ota");
        row("getMqttConfig", "GET", "/api/mqtt/broker");
        row("setMqttConfig", "POST", "/api/mqtt/broker");
        row("getDeviceId", "GET", "/api/device-id");
        row("setDeviceId", "POST", "/api/device-id");
        row("provision", "POST", "/api/provision");
        row("blePasskey", "GET", "/api/auth/ble-passkey");
    }
    // The parameters go as compact JSON or, for a form, percent-encoded in key order.
    void routes()
    {
        QFETCH(QString, method);
        QFETCH(QByteArray, type);
        const QJsonObject params{
            {"ssid", "Arena Staff"}, {"password", "p&ss=\u00fc/1"},  {"channel", 6},
            {"hidden", false},       {"list", QJsonArray{1.5, "a"}}, {"none", QJsonValue::Null}};
        QCOMPARE(call(method, params), "{}");
        QCOMPARE(m_server->requests().size(), 1);
        QTEST(sent().method, "verb");
        QTEST(sent().path, "path");
        QCOMPARE(sent().header("Content-Type"), type);
        QCOMPARE(sent().body, type.isEmpty() ? ""_ba
                              : type == "application/json"
                                  ? R"({"channel":6,"hidden":false,"list":[1.5,"a"],"none":null,)"
                                    R"("password":"p&ss=ü/1","ssid":"Arena Staff"})"_ba
                                  : "channel=6&hidden=false&list=%5B1.5%2C%22a%22%5D&none=&"
                                    "password=p%26ss%3D%C3%BC%2F1&ssid=Arena%20Staff"_ba);
        QCOMPARE(sent().header("Accept"), "application/json"_ba);
        QCOMPARE(sent().header("User-Agent"), QByteArray("Vantorelle-OBS/" VANTORELLE_VERSION));
    }
    // How each answer comes back; status 0 stands for a connection that drops unanswered, as a
    // restarting device's does, and -1 for one that stays silent past the transfer limit.
    void answers_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("answer");
        const auto row = [](const char* name, int status, const char* body, const char* answer,
                            const char* method = "getSettings") {
            QTest::newRow(name) << method << status << QByteArray(body) << answer;
        };
        row("400", 400, R"({"code":"weak_password","message":"Short"})", "weak_password: Short");
        row("400 without code", 400, R"({"error":"no ssid"})", "bad_request: no ssid");
        row("401", 401, R"({"error":"unauthorized"})", "unauthorized: unauthorized");
        row("403 stale csrf", 403, R"({"error":"csrf_invalid"})", "unauthorized: csrf_invalid");
        row("403 other", 403, R"({"error":"locked out"})", "forbidden: locked out");
        row("429", 429, R"({"message":"Slow down","error":"x"})", "rate_limited: Slow down");
        row("503 not json", 503, "warming up",
            "unavailable: The device answered with an error (503).");
        row("500 empty", 500, "", "device_error: The device answered with an error (500).");
        row("418", 418, R"({"message":"","error":"teapot"})", "device_error: teapot");
        row("302", 302, "", "device_error: The device answered with an error (302).");
        row("object", 200, R"({"name":"Rink 2"})", R"({"name":"Rink 2"})");
        row("array", 200, "[1,2]", R"({"value":[1,2]})");
        row("201 not json", 201, "OK", R"({"value":null})");
        const char* lost = "unreachable: Could not reach the device on your network.";
        row("dropped", 0, "", lost);
        row("past the transfer limit", -1, "", lost);
        row("reboot dropped", 0, "", R"({"status":"ok"})", "reboot");
        row("otaApply dropped", 0, "", R"({"status":"ok"})", "otaApply");
    }
    void answers()
    {
        QFETCH(QString, method);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        HttpResponse response = HttpResponse::text(body, status, "application/json");
        response.stall = status <= 0;
        answerAll(response);
        m_transport->setTransferTimeout(300);
        if (status == 0)
            connect(m_server.get(), &sim::HttpServer::requestReceived, this, [this] {
                QTimer::singleShot(0, m_server.get(), [this] { m_server->close(); });
            });
        QTEST(call(method), "answer");
    }
    void signInKeepsSession()
    {
        QByteArray setCookie = "session=abc123; Path=/; HttpOnly";
        QJsonObject loginBody{{"csrf_token", "tok-1"}};
        m_server->route("POST", u"/login"_s, [&](const HttpRequest&) {
            HttpResponse response = HttpResponse::json(loginBody);
            return setCookie.isEmpty() ? response : response.withHeader("Set-Cookie", setCookie);
        });
        call(u"login"_s);
        QCOMPARE(sent().header("Cookie"), QByteArray());
        call(u"setSettings"_s); // only a sign-in's answer changes the session
        call(u"getStatus"_s);
        QCOMPARE(sent().header("Cookie") + " " + sent().header("X-CSRF-Token"),
                 "session=abc123 tok-1");
        // A sign-in without cookie or token leaves neither, and no cookie jar brings one back.
        setCookie.clear();
        loginBody = {};
        call(u"login"_s);
        call(u"getStatus"_s);
        QCOMPARE(sent().header("Cookie") + sent().header("X-CSRF-Token"), QByteArray());
    }
    // Refusals decided here come through the event loop, with no request sent.
    void refusedWithoutRequest()
    {
        QSignalSpy replies(m_transport.get(), &RpcTransport::message);
        m_transport->send(R"({"id":7,"method":"getEspNow","params":{}})");
        QCOMPARE(replies.count(), 0);
        QTRY_COMPARE(replies.count(), 1);
        QCOMPARE(replies[0][0].toByteArray(),
                 R"({"error":{"code":"not_available_here","message":"This is only available )"
                 R"(over USB or Bluetooth, not over the network."},"id":7,"ok":false})");
        QCOMPARE(m_server->requests().size(), 0);
    }
    void normalise_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("host");
        const auto row = [](const char* typed, const char* host) {
            QTest::newRow(typed) << typed << host;
        };
        row(" http://192.168.1.20/setup?x=1 ", "192.168.1.20");
        row("12", "vantorelle-0012.local");
        row("0007", "vantorelle-0007.local");
        row("12345", "12345");
        row("Vantorelle-00AB", "vantorelle-00ab.local");
        row("Vantorelle-1.lan", "Vantorelle-1.lan");
        row("my device", "");
        row(" / ", "");
    }
    void normalise()
    {
        QFETCH(QString, typed);
        QTEST(normaliseDeviceAddress(typed), "host");
    }
};

QTEST_GUILESS_MAIN(tst_HttpAdminTransport)
#include "tst_http_admin_transport.moc"
