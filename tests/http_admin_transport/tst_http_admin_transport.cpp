// The HTTP admin transport against a real HTTP server: canned answers for the wire details, and
// the simulated network device for whole conversations through the RPC client.
#include "admin/http_admin_transport.h"
#include "admin/rpc_client.h"
#include "common/test_support.h"
#include "core/version.h"
#include "sim/http_server.h"
#include "sim/lan_device.h"

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
    std::unique_ptr<sim::LanDevice> m_device;

    // Waits for the answer; the client's own deadline is shorter, so the callback always comes.
    RpcResult call(const QString& method, const QJsonObject& params = {})
    {
        std::optional<RpcResult> answer;
        m_client->call(
            method, params, [&answer](const RpcResult& result) { answer = result; }, 5000);
        (void)QTest::qWaitFor([&answer] { return answer.has_value(); }, 10000);
        return answer.value_or(RpcResult::failure(u"no_answer"_s, {}));
    }

    void connectTo(quint16 port)
    {
        m_client.reset();
        m_transport = std::make_unique<HttpAdminTransport>(u"127.0.0.1"_s, port);
        m_transport->setConnected(true);
        m_client = std::make_unique<RpcClient>(m_transport.get());
    }

    // Points the transport at a simulated device instead of the canned server.
    bool useLanDevice()
    {
        m_device = std::make_unique<sim::LanDevice>();
        if (!m_device->start())
            return false;
        connectTo(m_device->port());
        return true;
    }

    void answerAll(const HttpResponse& response)
    {
        m_server->setFallback([response](const HttpRequest&) { return response; });
    }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<sim::HttpServer>();
        QVERIFY(m_server->listen());
        connectTo(m_server->port());
    }

    void cleanup()
    {
        m_client.reset();
        m_transport.reset();
        m_server.reset();
        m_device.reset();
    }

    void errorStatus_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("400 with code")
            << 400 << R"({"code":"weak_password","message":"Too short"})"_ba
            << "weak_password"
            << "Too short";
        QTest::newRow("400 without code") << 400 << R"({"error":"no ssid"})"_ba
                                          << "bad_request"
                                          << "no ssid";
        QTest::newRow("401") << 401 << R"({"error":"unauthorized"})"_ba
                             << "unauthorized"
                             << "unauthorized";
        QTest::newRow("403 stale csrf") << 403 << R"({"error":"csrf_invalid"})"_ba
                                        << "unauthorized"
                                        << "csrf_invalid";
        QTest::newRow("403 other") << 403 << R"({"error":"locked out"})"_ba
                                   << "forbidden"
                                   << "locked out";
        QTest::newRow("429") << 429 << R"({"message":"Slow down","error":"x"})"_ba
                             << "rate_limited"
                             << "Slow down";
        QTest::newRow("503 not json") << 503 << "warming up"_ba
                                      << "unavailable"
                                      << "The device answered with an error (503).";
        QTest::newRow("500 empty") << 500 << QByteArray() << "device_error"
                                   << "The device answered with an error (500).";
        QTest::newRow("418 error text") << 418 << R"({"message":"","error":"teapot"})"_ba
                                        << "device_error"
                                        << "teapot";
    }

    void errorStatus()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        answerAll(HttpResponse::text(body, status, "application/json"));
        const RpcResult result = call(u"getSettings"_s);
        QVERIFY(!result.ok);
        QTEST(result.code, "code");
        QTEST(result.message, "message");
    }

    void successBody_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QJsonObject>("result");
        QTest::newRow("object") << R"({"name":"Rink 2"})"_ba << QJsonObject{{"name", "Rink 2"}};
        QTest::newRow("array") << "[1,2]"_ba << QJsonObject{{"value", QJsonArray{1, 2}}};
        QTest::newRow("not json") << "OK"_ba << QJsonObject{{"value", QJsonValue::Null}};
    }

    void successBody()
    {
        QFETCH(QByteArray, body);
        answerAll(HttpResponse::text(body, 200, "application/json"));
        const RpcResult result = call(u"getStatus"_s);
        QVERIFY(result.ok);
        QTEST(result.result, "result");
    }

    void loginKeepsSession()
    {
        QByteArray setCookie = "session=abc123; Path=/; HttpOnly";
        QJsonObject loginBody{{"csrf_token", "tok-1"}, {"must_change_password", false}};
        m_server->route("POST", u"/login"_s, [&](const HttpRequest&) {
            HttpResponse response = HttpResponse::json(loginBody);
            return setCookie.isEmpty() ? response : response.withHeader("Set-Cookie", setCookie);
        });
        m_server->route("GET", u"/api/settings"_s,
                        [](const HttpRequest&) { return HttpResponse::text("", 500); });
        answerAll(HttpResponse::json({}));

        QVERIFY(call(u"login"_s, {{"password", "admin"}}).ok);
        QCOMPARE(m_server->requests().last().header("Cookie"), QByteArray());
        QCOMPARE(m_transport->cookie(), "session=abc123"_ba);
        QCOMPARE(m_transport->csrfToken(), "tok-1"_ba);

        QVERIFY(!call(u"getSettings"_s).ok); // a failure keeps the session
        QVERIFY(call(u"setSettings"_s, {{"brightness", 40}}).ok);
        const HttpRequest& sent = m_server->requests().last();
        QCOMPARE(sent.header("Cookie"), "session=abc123"_ba);
        QCOMPARE(sent.header("X-CSRF-Token"), "tok-1"_ba);
        QCOMPARE(sent.header("Accept"), "application/json"_ba);
        QCOMPARE(sent.header("User-Agent"), userAgent());

        // A sign-in without cookie or token overwrites both with nothing, and no cookie jar
        // brings the old one back.
        setCookie.clear();
        loginBody = {};
        QVERIFY(call(u"login"_s, {{"password", "admin"}}).ok);
        QCOMPARE(m_transport->cookie(), QByteArray());
        QCOMPARE(m_transport->csrfToken(), QByteArray());
        QVERIFY(call(u"getStatus"_s).ok);
        QCOMPARE(m_server->requests().last().header("Cookie"), QByteArray());
        QCOMPARE(m_server->requests().last().header("X-CSRF-Token"), QByteArray());
    }

    void requestBody_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QJsonObject>("params");
        QTest::addColumn<QByteArray>("verb");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("configureWifi as form")
            << "configureWifi"
            << QJsonObject{{"ssid", "Arena Staff"},
                           {"password", "p&ss=\u00fc/1"},
                           {"channel", 6},
                           {"hidden", false}}
            << "POST"_ba
            << "/configure"
            << "application/x-www-form-urlencoded"_ba
            << "channel=6&hidden=false&password=p%26ss%3D%C3%BC%2F1&ssid=Arena%20Staff"_ba;
        QTest::newRow("setSettings as json")
            << "setSettings" << QJsonObject{{"brightness", 80}, {"device_name", "Rink 2"}}
            << "POST"_ba
            << "/api/settings"
            << "application/json"_ba
            << R"({"brightness":80,"device_name":"Rink 2"})"_ba;
        QTest::newRow("get without body") << "getState" << QJsonObject{{"full", true}} << "GET"_ba
                                          << "/state" << QByteArray() << QByteArray();
    }

    void requestBody()
    {
        QFETCH(QString, method);
        QFETCH(QJsonObject, params);
        answerAll(HttpResponse::json({}));
        QVERIFY(call(method, params).ok);
        QCOMPARE(m_server->requests().size(), 1);
        const HttpRequest& sent = m_server->requests().first();
        QTEST(sent.method, "verb");
        QTEST(sent.path, "path");
        QTEST(sent.header("Content-Type"), "contentType");
        QTEST(sent.body, "body");
    }

    // A restarting device drops the connection instead of answering.
    void droppedConnection_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<bool>("serverGoesAway");
        QTest::addColumn<QString>("code");
        QTest::newRow("reboot") << "reboot" << true << "";
        QTest::newRow("otaApply") << "otaApply" << true << "";
        QTest::newRow("getStatus") << "getStatus" << true << "unreachable";
        QTest::newRow("getStatus past the transfer limit") << "getStatus" << false << "unreachable";
    }

    void droppedConnection()
    {
        QFETCH(QString, method);
        QFETCH(bool, serverGoesAway);
        HttpResponse never;
        never.stall = true;
        answerAll(never);
        m_transport->setTransferTimeout(300);
        if (serverGoesAway)
            connect(m_server.get(), &sim::HttpServer::requestReceived, this, [this] {
                QTimer::singleShot(0, m_server.get(), [this] { m_server->close(); });
            });

        const RpcResult result = call(method);
        QTEST(result.code, "code");
        QCOMPARE(result.ok, result.code.isEmpty());
        if (result.ok)
            QCOMPARE(result.result, (QJsonObject{{"status", "ok"}}));
        else
            QCOMPARE(result.message, u"Could not reach the device on your network."_s);
    }

    void refusedWithoutNetwork_data()
    {
        QTest::addColumn<bool>("connected");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        const QString onlyUsb =
            u"This is only available over USB or Bluetooth, not over the network."_s;
        QTest::newRow("not connected") << false << "getStatus"
                                       << "disconnected"
                                       << "Not connected to a device";
        QTest::newRow("not routed") << true << "getEspNow"
                                    << "not_available_here" << onlyUsb;
        QTest::newRow("case differs") << true << "GetStatus"
                                      << "not_available_here" << onlyUsb;
    }

    void refusedWithoutNetwork()
    {
        QFETCH(bool, connected);
        QFETCH(QString, method);
        m_transport->setConnected(connected);
        QSignalSpy replies(m_transport.get(), &RpcTransport::message);
        m_transport->send(QJsonDocument(QJsonObject{{"id", 7}, {"method", method}}).toJson());
        QCOMPARE(replies.count(), 0); // never from inside send()
        QTRY_COMPARE(replies.count(), 1);
        const QJsonObject reply =
            QJsonDocument::fromJson(replies.first().first().toByteArray()).object();
        QCOMPARE(reply.value("id").toInt(), 7);
        QCOMPARE(reply.value("ok").toBool(true), false);
        QTEST(reply["error"]["code"].toString(), "code");
        QTEST(reply["error"]["message"].toString(), "message");
        QCOMPARE(m_server->requests().size(), 0);
    }

    void normalise_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("host");
        QTest::newRow("url") << " http://192.168.1.20/setup?x=1 "
                             << "192.168.1.20";
        QTest::newRow("12") << "12"
                            << "vantorelle-0012.local";
        QTest::newRow("7") << "7"
                           << "vantorelle-0007.local";
        QTest::newRow("0007") << "0007"
                              << "vantorelle-0007.local";
        QTest::newRow("prefixed name") << "Vantorelle-00AB"
                                       << "vantorelle-00ab.local";
        QTest::newRow("prefixed name with dot") << "Vantorelle-1.lan"
                                                << "Vantorelle-1.lan";
        QTest::newRow("space") << "my device"
                               << "";
    }

    void normalise()
    {
        QFETCH(QString, typed);
        QTEST(normaliseDeviceAddress(typed), "host");
    }

    // The simulated device, through the real transport: cookie, CSRF token and restarts.
    void lanDeviceSession()
    {
        QVERIFY(useLanDevice());
        sim::LanDevice& device = *m_device;

        QCOMPARE(call(u"getSettings"_s).code, u"unauthorized"_s);
        const RpcResult wrong = call(u"login"_s, {{"password", "nope"}});
        QCOMPARE(wrong.code, u"unauthorized"_s);
        QVERIFY(!wrong.message.isEmpty());
        const RpcResult login = call(u"login"_s, {{"password", "admin"}});
        QVERIFY(login.ok);
        QVERIFY(login.result.contains("must_change_password"));
        QCOMPARE(m_transport->cookie(), "session=" + device.session());
        QCOMPARE(m_transport->csrfToken(), device.csrfToken());

        QVERIFY(call(u"setSettings"_s, {{"brightness", 33}}).ok);
        QCOMPARE(device.responder().settings().value("brightness").toInt(), 33);

        device.invalidateCsrf();
        QCOMPARE(call(u"setSettings"_s, {{"brightness", 1}}).code, u"unauthorized"_s);
        QVERIFY(call(u"getSettings"_s).ok); // GETs need no token
        QVERIFY(call(u"login"_s, {{"password", "admin"}}).ok);
        QVERIFY(call(u"setSettings"_s, {{"brightness", 2}}).ok);

        device.forgetSession();
        QCOMPARE(call(u"getSettings"_s).code, u"unauthorized"_s);
        device.setRateLimited(true);
        QCOMPARE(call(u"login"_s, {{"password", "admin"}}).code, u"rate_limited"_s);
    }

    void lanDeviceReboot()
    {
        QVERIFY(useLanDevice());
        sim::LanDevice& device = *m_device;
        device.setRebootDowntime(100);
        QSignalSpy rebooted(&device.responder(), &sim::AdminResponder::rebootRequested);

        QVERIFY(call(u"login"_s, {{"password", "admin"}}).ok);
        const RpcResult reboot = call(u"reboot"_s);
        QVERIFY(reboot.ok);
        QCOMPARE(reboot.result, (QJsonObject{{"status", "ok"}}));
        QCOMPARE(rebooted.count(), 1);
        QVERIFY(QTest::qWaitFor([&] { return test::canConnect(u"127.0.0.1"_s, device.port()); }));
        QCOMPARE(call(u"getSettings"_s).code, u"unauthorized"_s);
    }

    void lanDeviceWifiJoin()
    {
        QVERIFY(useLanDevice());
        sim::LanDevice& device = *m_device;
        device.setWifiJoinOutcome(u"reverted"_s, u"wrong password"_s, 400);
        const auto provision = [this] {
            return call(u"getStatus"_s).result["wifi_provision"].toObject();
        };

        QVERIFY(call(u"login"_s, {{"password", "admin"}}).ok);
        QVERIFY(call(u"configureWifi"_s, {{"ssid", "Arena-Staff"}, {"pass", "correct horse"}}).ok);
        QCOMPARE(device.responder().wifiSsid(), u"Arena-Staff"_s);
        QCOMPARE(provision().value("state").toString(), u"pending"_s);
        QTRY_COMPARE(provision().value("state").toString(), u"reverted"_s);
        QCOMPARE(provision().value("detail").toString(), u"wrong password"_s);
    }
};

QTEST_GUILESS_MAIN(tst_HttpAdminTransport)
#include "tst_http_admin_transport.moc"
