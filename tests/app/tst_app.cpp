// The application object against the simulated portal and device, without OBS.

#include "app.h"
#include "cloud_relay.h"
#include "common/app_support.h"
#include "common/test_support.h"
#include "device_session.h"
#include "hosted_server.h"
#include "log.h"
#include "sim/feed_server.h"
#include "sim/portal_server.h"
#include "sim/usb_device.h"
#include "usb_link.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");

QJsonObject object(const char* json)
{
    return QJsonDocument::fromJson(json).object();
}

// Devices set up on this computer's network: dev-2 is in the account too, dev-8 has no token.
const QJsonObject kLan = object(R"({"dev-0":{"host":"127.0.0.1","token":"t0","name":"Annex"},
    "dev-2":{"host":"127.0.0.1","token":"t2","name":"Court"},
    "dev-7":{"host":"127.0.0.1","token":"t7","name":"Field house"},
    "dev-8":{"host":"127.0.0.1","token":"","name":"Old"}})");

QString routeText(const QList<Route>& routes)
{
    QStringList words;
    for (Route route : routes)
        words << QStringList{"cloud", "lan", "usb", "ble"}.value(int(route));
    return words.join(u',');
}

} // namespace

class TestApp : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<sim::PortalServer> m_portal;
    QStringList m_log;

    std::unique_ptr<App> makeApp(const QJsonObject& settings = {})
    {
        return std::make_unique<App>(
            testAppEnvironment(m_dir.path(), m_portal->baseUrl(), settings));
    }
    // Signs in and waits for both lists of the account.
    void signIn(App& app)
    {
        QSignalSpy devices(&app, &App::devicesChanged);
        QSignalSpy outputs(&app, &App::outputsChanged);
        app.portal().signIn(kEmail, "hunter22", {});
        QTRY_VERIFY(!devices.isEmpty() && !outputs.isEmpty());
    }

private Q_SLOTS:
    void init()
    {
        QFile::remove(m_dir.filePath("session.json"));
        m_portal = std::make_unique<sim::PortalServer>();
        QVERIFY(m_portal->start());
        m_portal->addAccount(kEmail, "hunter22");
        m_portal->addDevice(kEmail, {"dev-1", "Gym"});
        m_portal->addOutput(kEmail, object(R"({"id":"out-1","share_token":"tok-a"})"));
        m_log.clear();
        setLogSink([this](LogLevel, const QString& line) { m_log << line; });
    }
    void cleanup()
    {
        setLogSink({});
        qunsetenv("VANTORELLE_FEED_PORT");
    }
    void signInAndSelectionRestored()
    {
        auto app = makeApp({{"selected_device", "dev-9"}});
        signIn(*app); // the only device is taken
        QCOMPARE(app->sourceManager()->deviceId(), "dev-1");
        QCOMPARE(app->settings().selectedDevice(), "dev-1");
        // The next start signs in with the saved session and takes the stored device.
        m_portal->addDevice(kEmail, {"dev-2", ""});
        app = makeApp({{"selected_device", "dev-2"}});
        QTRY_COMPARE(app->sourceManager()->deviceId(), "dev-2");
        QTRY_COMPARE(app->outputs().size(), 1);
        const GraphicsOutput& output = app->outputs().first();
        QCOMPARE(output.url, m_portal->baseUrl() + "/graphics/o/tok-a");
        QCOMPARE(QSize(output.width, output.height), QSize(1920, 1080));
        m_portal->fail("/auth/me", 500);
        app = makeApp();
        QTRY_COMPARE(m_log, QStringList{"[vantorelle] could not restore sign-in: HTTP 500"});
        // A refused session is forgotten without a word.
        m_portal->fail("/auth/me", 401);
        app = makeApp();
        QTRY_VERIFY(!QFile::exists(m_dir.filePath("session.json")));
        QCOMPARE(m_log.size(), 1);
        QVERIFY(!app->isSignedIn());
    }
    void choosingDevicesAndRoutes() // in the dock, and by sharing-server clients
    {
        m_portal->addDevice(kEmail, {"dev-2", ""});
        m_portal->setLiveData("dev-1", "hockey", {{"home_score", 3}});
        // A feed port that takes connections and never answers: a network route stays
        // "Connecting" (a closed port may refuse before the route is even chosen).
        QTcpServer silentFeed;
        QVERIFY(silentFeed.listen(QHostAddress::LocalHost));
        qputenv("VANTORELLE_FEED_PORT", QByteArray::number(silentFeed.serverPort()));
        auto app = makeApp(
            {{"lan", kLan}, {"routes", object(R"({"dev-1":"lan","dev-2":"lan","dev-8":"lan"})")}});
        auto ask = [&](const char* op, const char* request = "{}") { // a sharing-server client
            return app->handleServerRequest(op, object(request));
        };
        QCOMPARE(ask("devices"), object(R"({"devices":[]})"));
        signIn(*app);
        auto choosable = [&] {
            QStringList entries;
            for (const DeviceEntry& device : app->choosableDevices())
                entries << device.id + '=' + device.name;
            return entries.join(u',');
        };
        QCOMPARE(choosable(), "dev-1=Gym,dev-2=,dev-0=Annex,dev-7=Field house");
        QVERIFY(app->isInAccount("dev-2") && !app->isInAccount("dev-7"));
        QStringList routes;
        for (const char* id : {"dev-1", "dev-2", "dev-7", "dev-8", "dev-9"})
            routes << routeText(app->routesOf(id));
        QCOMPARE(routes, QStringList({"cloud", "cloud,lan", "lan", "", ""}));
        // Chooses a device, or its route; the route kept, the status and the device remembered.
        auto choose = [&](const QString& id, std::optional<Route> route = {}) {
            route ? app->chooseRoute(id, *route) : app->chooseDevice(id);
            return QStringList{routeText({app->settings().route(id)}),
                               app->sourceManager()->status(), app->settings().selectedDevice()};
        };
        QCOMPARE(choose(""), QStringList({"cloud", "", ""}));
        QCOMPARE(choose("", Route::Lan), QStringList({"cloud", "", ""}));
        // A stored route it cannot take
        QCOMPARE(choose("dev-1"), QStringList({"cloud", "Connecting to Gym", "dev-1"}));
        const QString court = "Connecting to Court on your network";
        QCOMPARE(choose("dev-2"), QStringList({"lan", court, "dev-2"}));
        QCOMPARE(choose("dev-2", Route::Cloud),
                 QStringList({"cloud", "Connecting to Court", "dev-2"}));
        QCOMPARE(choose("dev-2"), QStringList({"cloud", "Connecting to Court", "dev-2"}));
        const QString field = "Connecting to Field house on your network";
        QCOMPARE(choose("dev-7"), QStringList({"lan", field, "dev-7"}));
        // An entry that cannot carry live data
        QCOMPARE(choose("dev-8"), QStringList({"lan", "Connecting to Old", "dev-8"}));
        QCOMPARE(choose("dev-9"), QStringList({"cloud", "Connecting to dev-9", "dev-9"}));
        const QString annex = "Connecting to Annex on your network";
        QCOMPARE(choose("dev-0", Route::Lan), QStringList({"lan", annex, "dev-0"}));
        QCOMPARE(ask("devices"), object(R"x({"devices":[{"id":"dev-1","name":"Gym (dev-1)"},
                                                     {"id":"dev-2","name":"dev-2"}]})x"));
        const QJsonObject unknown = object(R"({"ok":false,"error":"unknown_device"})");
        QCOMPARE(ask("use", R"({"device":"DEV-1"})"), unknown);
        QCOMPARE(ask("use", R"({"device":"dev-7"})"), unknown); // not in the account
        QCOMPARE(app->settings().selectedDevice(), "dev-0");
        QCOMPARE(ask("use", R"({"device":"dev-1"})"), object(R"({"device":"dev-1"})"));
        QCOMPARE(app->settings().selectedDevice(), "dev-1");
        QTRY_VERIFY(app->sourceManager()->isLive());
        QJsonObject status = ask("status");
        // The age of the last envelope is whatever it is by now, but a number below the limit.
        QVERIFY(status.take("age_ms").toDouble(-1) >= 0);
        QCOMPARE(status, object(R"({"signed_in":true,"account":"coach@example.com","source":"cloud",
                   "device":"dev-1","live":true,"stale":false,"message":"Live from Gym",
                   "sport":"hockey"})"));
        QCOMPARE(ask("Status"), object(R"({"ok":false,"error":"unknown_op"})"));
        // Signing out empties the account's lists, with one signal each.
        QSignalSpy devices(app.get(), &App::devicesChanged);
        QSignalSpy outputs(app.get(), &App::outputsChanged);
        app->portal().signOut();
        QCOMPARE((QList<qsizetype>{devices.size(), outputs.size()}), QList<qsizetype>({1, 1}));
        QVERIFY(app->outputs().isEmpty());
        QCOMPARE(choosable(), "dev-0=Annex,dev-2=Court,dev-7=Field house");
        QCOMPARE(routeText(app->routesOf("dev-2")), "lan");
    }
    void lanDeviceStartsWithoutSignIn()
    {
        VANTORELLE_NEEDS_TLS_SERVER();
        sim::FeedServer feed;
        feed.setExpectedToken("t7");
        QVERIFY(feed.start());
        m_portal->addDevice(kEmail, {"dev-7", "Field"});
        qputenv("VANTORELLE_FEED_PORT", QByteArray::number(feed.serverPort()));
        auto app = makeApp({{"selected_device", "dev-7"},
                            {"routes", object(R"({"dev-7":"lan"})")},
                            {"lan", kLan}});
        qunsetenv("VANTORELLE_FEED_PORT");
        const QString waiting = "Connected to Field house, waiting for scoreboard data";
        QCOMPARE(app->sourceManager()->status(), "Connecting to Field house on your network");
        QTRY_COMPARE(app->sourceManager()->status(), waiting);
        // The account holds the device too: the feed already followed is kept, not restarted.
        signIn(*app);
        QCOMPARE(app->sourceManager()->status(), waiting);
        QCOMPARE(feed.connectionCount(), 1);
    }
    // As OBS's module the application starts when the event loop first turns: constructing it
    // reads the settings and opens nothing; starting writes nothing back.
    void startsWhenIdle()
    {
        VANTORELLE_NEEDS_TLS_SERVER();
        sim::FeedServer feed;
        feed.setExpectedToken("t7");
        QVERIFY(feed.start());
        qputenv("VANTORELLE_FEED_PORT", QByteArray::number(feed.serverPort()));
        AppEnvironment env = testAppEnvironment(m_dir.path(), m_portal->baseUrl(),
                                                {{"selected_device", "dev-7"},
                                                 {"routes", object(R"({"dev-7":"lan"})")},
                                                 {"lan", kLan},
                                                 {"server_enabled", true},
                                                 {"server_port", freePort()}});
        env.startWhenIdle = true;
        // Compact, unlike a save, so that a save shows.
        const QByteArray saved =
            QJsonDocument::fromJson(readFile(env.settingsFile)).toJson(QJsonDocument::Compact);
        writeFile(env.settingsFile, saved);
        App app(env);
        QVERIFY(!app.server()->isListening());
        QTRY_VERIFY(app.server()->isListening());
        QTRY_COMPARE(app.sourceManager()->status(),
                     "Connected to Field house, waiting for scoreboard data");
        QCOMPARE(readFile(env.settingsFile), saved);
    }
    void setUpDeviceIsFollowed()
    {
        VANTORELLE_NEEDS_PTY();
        sim::UsbDevice device;
        device.setHelloInfo({{"tunnel", QJsonObject{{"host", "127.0.0.1"}, {"port", 9}}}});
        QVERIFY(device.start());
        UsbLink link(device.portPath(), UsbLinkSettings{50, 2000, 100});
        auto session = test::signedInSession(&link);
        QVERIFY(session);
        auto app = makeApp();
        QSignalSpy relays(app.get(), &App::usbRelaysChanged);
        app->followSetUpDevice(session, "Bench");
        app->followSetUpDevice(session, "Bench");
        QCOMPARE(relays.size(), 1);
        QVERIFY(app->sourceManager()->session() == session);
        QCOMPARE(app->sourceManager()->status(), "Connected to Bench, waiting for scoreboard data");
        QCOMPARE(app->settings().lastUsbPort(), device.portPath());
        QCOMPARE(app->relayStatusLines(),
                 QStringList{"Vantorelle 0042: ready, waiting for the device"});
        app->setShareConnection(false);
        QVERIFY(!link.cloudRelay()->shareConnection() && !app->settings().shareConnection());
        QCOMPARE(app->relayStatusLines(),
                 QStringList{"Vantorelle 0042: waiting for the paired device"});

        // The device is now the selected one on its USB route, listed without the account, and
        // the next start opens the same port again.
        const QJsonObject saved =
            QJsonDocument::fromJson(test::readFile(m_dir.filePath("settings.json"))).object();
        QCOMPARE(saved["selected_device"].toString(), "VT-0042");
        QCOMPARE(saved["routes"].toObject(), object(R"({"VT-0042":"usb"})"));
        QCOMPARE(saved["links"].toObject()["VT-0042"].toObject(),
                 QJsonObject({{"name", "Bench"}, {"usb_port", device.portPath()}}));
        QCOMPARE(routeText(app->routesOf("VT-0042")), "usb");
        QCOMPARE(app->choosableDevices().size(), 1);
        QCOMPARE(app->deviceName("VT-0042"), "Bench");
        app.reset();
        session.reset();
        link.close();
        AppEnvironment restart = testAppEnvironment(m_dir.path(), m_portal->baseUrl(), saved);
        restart.usb = UsbLinkSettings{50, 2000, 100};
        app = std::make_unique<App>(restart);
        QVERIFY(app->sourceManager()->session());
        device.sendEnvelope({{"type", "state"}, {"fields", QJsonObject{{"home_score", 7}}}});
        QTRY_COMPARE(app->fields().value("home_score"), "7");
        QCOMPARE(app->sourceManager()->status(), "Live from Bench");
    }
    // Operator fields and holds come back after a restart, sharing clients hold and release, and
    // holds end when the data comes back after an outage while the setting says so.
    void operatorFieldsAndHolds()
    {
        m_portal->setLiveData("dev-1", "hockey", {{"home_score", 3}, {"away_score", 1}});
        auto app = makeApp({{"operator_fields", object(R"({"home_name":"Hawks","bad name":"x"})")},
                            {"held_fields", object(R"({"away_score":"2"})")}});
        QCOMPARE(app->fields().value("home_name"), "Hawks");
        QCOMPARE(app->fields().value("away_score"), "2");
        auto ask = [&](const char* op, const char* request) {
            return app->handleServerRequest(op, object(request));
        };
        QCOMPARE(ask("hold", R"({"field":"home_score","value":5})"),
                 object(R"({"holds":{"away_score":"2","home_score":"5"}})"));
        QCOMPARE(ask("hold", R"({"field":"home score","value":"5"})"),
                 object(R"({"ok":false,"error":"bad_field"})"));
        QCOMPARE(ask("hold", R"({"field":"home_score"})"),
                 object(R"({"ok":false,"error":"bad_value"})"));
        QCOMPARE(ask("release", R"({"field":"home_score"})"),
                 object(R"({"holds":{"away_score":"2"}})"));
        const QJsonObject saved =
            QJsonDocument::fromJson(test::readFile(m_dir.filePath("settings.json"))).object();
        QCOMPARE(saved["operator_fields"].toObject(), object(R"({"home_name":"Hawks"})"));
        QCOMPARE(saved["held_fields"].toObject(), object(R"({"away_score":"2"})"));
        // The same through the websocket's requests: a field of one's own, a hold, releasing each.
        const auto vendor = [&](const char* type, const char* request) {
            return app->handleVendorRequest(type, object(request));
        };
        QCOMPARE(vendor("SetOperatorField", R"({"field":"sponsor","value":"Acme"})"),
                 object(R"({"fields":{"home_name":"Hawks","sponsor":"Acme"},
                            "holds":{"away_score":"2"}})"));
        QCOMPARE(vendor("SetOperatorField", R"({"field":"home_score","value":9,"hold":true})"),
                 object(R"({"fields":{"home_name":"Hawks","sponsor":"Acme"},
                            "holds":{"away_score":"2","home_score":"9"}})"));
        QCOMPARE(vendor("GetSnapshot", "{}")["fields"].toObject()["home_score"].toString(), "9");
        vendor("ReleaseOperatorField", R"({"field":"home_score"})");
        QCOMPARE(vendor("ReleaseOperatorField", R"({"field":"sponsor"})"),
                 object(R"({"fields":{"home_name":"Hawks"},"holds":{"away_score":"2"}})"));
        QCOMPARE(vendor("Reboot", "{}"), object(R"({"ok":false,"error":"unknown_request"})"));

        // The data arrives: the hold from before the restart ends; one made while live stays.
        signIn(*app);
        QTRY_VERIFY(app->sourceManager()->isLive());
        QVERIFY(app->fields().holds().isEmpty());
        QCOMPARE(app->fields().value("away_score"), "1");
        QVERIFY(app->fields().hold("away_score", "4"));
        app->sourceManager()->pollCloud();
        auto outageAndBack = [&] {
            m_portal->fail("/devices/dev-1/state", 500);
            app->sourceManager()->pollCloud();
            QTRY_VERIFY(!app->sourceManager()->isLive());
            QCOMPARE(app->fields().value("away_score"), "4");
            m_portal->clearFailure("/devices/dev-1/state");
            app->sourceManager()->pollCloud();
            QTRY_VERIFY(app->sourceManager()->isLive());
        };
        outageAndBack();
        QVERIFY(app->fields().holds().isEmpty());
        app->settings().setReleaseHoldsWhenLive(false);
        QVERIFY(app->fields().hold("away_score", "4"));
        outageAndBack();
        QCOMPARE(app->fields().value("away_score"), "4");
    }
    // Browsers get a port of their own that speaks HTTP alone, with the same merged fields.
    void browserPort()
    {
        const quint16 port = freePort();
        auto app = makeApp({{"server_enabled", true},
                            {"server_port", freePort()},
                            {"browser_port", port},
                            {"operator_fields", object(R"({"sponsor":"Acme"})")}});
        QCOMPARE(app->browserServer()->serverPort(), port);
        QTcpSocket browser;
        browser.connectToHost("127.0.0.1", port);
        QVERIFY(browser.waitForConnected(5000));
        browser.write("GET /fields/sponsor.txt HTTP/1.1\r\nHost: x\r\n\r\n");
        QByteArray answer;
        QTRY_VERIFY((answer += browser.readAll()).endsWith("Acme"));
        QVERIFY2(answer.startsWith("HTTP/1.1 200 OK\r\n"), answer.constData());
        app->settings().setBrowserPort(0);
        app->applyServerSettings();
        QVERIFY(!app->browserServer()->isListening() && app->server()->isListening());
    }
    void outputsRefresh()
    {
        auto app = makeApp();
        QSignalSpy changed(app.get(), &App::outputsChanged);
        // The outcome, the error kept, the outputs kept and the signals.
        auto refresh = [&] {
            changed.clear();
            QString result = "none";
            app->refreshOutputs([&](bool ok, const QString& text) { result = ok ? "ok" : text; });
            (void)QTest::qWaitFor([&] { return result != "none"; });
            return QStringList{result, app->outputsError(), QString::number(app->outputs().size()),
                               QString::number(changed.size())};
        };
        const QString signIn = "Sign in from the Vantorelle dock to see your graphics.";
        QCOMPARE(refresh(), QStringList({signIn, signIn, "0", "1"}));
        this->signIn(*app);
        QCOMPARE(refresh(), QStringList({"ok", "", "1", "1"}));
        QVERIFY(app->refreshOutputsBlocking(10000)); // waits for the answer
        m_portal->fail("/api/graphics/outputs", 402);
        const QString plan = "Graphics need an active Vantorelle cloud plan.";
        QCOMPARE(refresh(), QStringList({plan, plan, "1", "1"}));
        // A blocking refresh waits no longer than its limit.
        sim::HttpResponse stalled;
        stalled.stall = true;
        m_portal->setFailure("/api/graphics/outputs", stalled);
        changed.clear();
        QVERIFY(!app->refreshOutputsBlocking(300));
        QCOMPARE(changed.size(), 0);
    }
};

QTEST_MAIN(TestApp)
#include "tst_app.moc"
