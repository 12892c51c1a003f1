// The application object against a local portal and a device feed, without OBS.

#include "common/app_support.h"
#include "common/test_support.h"
#include "core/app.h"
#include "core/log.h"
#include "sim/feed_server.h"
#include "sim/portal_server.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");
const QString kSignInSentence =
    QStringLiteral("Sign in from the Vantorelle dock to see your graphics.");

QJsonObject object(const char* json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class TestApp : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void restoreFailureLogging_data();
    void restoreFailureLogging();
    void signInRestoredFromPreviousSession();
    void selectionRestoredAfterFetch_data();
    void selectionRestoredAfterFetch();
    void serverRequests_data();
    void serverRequests();
    void outputsError_data();
    void outputsError();
    void blockingRefreshHonoursItsLimit_data();
    void blockingRefreshHonoursItsLimit();
    void lanDeviceGoesLiveWithoutSignIn();
    void signOutClearsListsOnce();

private:
    AppEnvironment environment(const QJsonObject& settings);
    std::unique_ptr<App> makeApp(const QJsonObject& settings = {});
    void signIn(App& app);
    void addDevices(int count);

    QTemporaryDir m_dir;
    std::unique_ptr<sim::PortalServer> m_portal;
    QStringList m_log;
};

void TestApp::init()
{
    QVERIFY(m_dir.isValid());
    QFile::remove(m_dir.filePath("session.json"));
    m_portal = std::make_unique<sim::PortalServer>();
    QVERIFY(m_portal->start());
    m_portal->addAccount(kEmail, kPassword);
    m_portal->addOutput(kEmail, object(R"({"id":"out-1","name":"Scoreboard",)"
                                       R"("share_token":"tok-a","width":1280,"height":720})"));
    m_log.clear();
    setLogSink([this](LogLevel, const QString& line) { m_log << line; });
}

void TestApp::cleanup()
{
    setLogSink({});
    m_portal.reset();
}

AppEnvironment TestApp::environment(const QJsonObject& settings)
{
    return testAppEnvironment(m_dir.path(), m_portal->baseUrl(), settings);
}

std::unique_ptr<App> TestApp::makeApp(const QJsonObject& settings)
{
    return std::make_unique<App>(environment(settings));
}

void TestApp::signIn(App& app)
{
    bool done = false;
    QString message;
    app.portal().signIn(kEmail, kPassword, [&](const PortalResult& result) {
        done = true;
        message = QStringLiteral("%1 %2").arg(result.status).arg(result.message);
    });
    QTRY_VERIFY(done);
    QVERIFY2(app.isSignedIn(), qPrintable(message));
}

void TestApp::addDevices(int count)
{
    for (int i = 1; i <= count; ++i)
        m_portal->addDevice(
            kEmail, {QStringLiteral("dev-%1").arg(i), i == 1 ? QStringLiteral("Gym") : QString()});
}

void TestApp::restoreFailureLogging_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QStringList>("log");
    QTest::newRow("401 is silent") << 401 << QStringList();
    QTest::newRow("500 is logged")
        << 500 << QStringList{"[vantorelle] could not restore sign-in: HTTP 500"};
}

void TestApp::restoreFailureLogging()
{
    QFETCH(int, status);
    QFETCH(QStringList, log);
    writeFile(m_dir.filePath("session.json"), "[]");
    m_portal->fail("/auth/me", status);
    auto app = makeApp();
    // A 401 clears the saved session, which is how its end shows.
    if (status == 401)
        QTRY_VERIFY(!QFile::exists(m_dir.filePath("session.json")));
    else
        QTRY_VERIFY(!m_log.isEmpty());
    QCOMPARE(m_log, log);
    QVERIFY(!app->isSignedIn());
}

void TestApp::signInRestoredFromPreviousSession()
{
    addDevices(2);
    {
        auto first = makeApp();
        signIn(*first);
    }
    auto app = makeApp();
    QSignalSpy outputs(app.get(), &App::outputsChanged);
    QTRY_VERIFY(app->isSignedIn());
    QTRY_COMPARE(app->devices().size(), 2);
    QCOMPARE(app->devices().first().name, QStringLiteral("Gym"));
    QTRY_COMPARE(outputs.size(), 1);
    QCOMPARE(app->outputs().size(), 1);
    QCOMPARE(app->outputs().first().url, m_portal->baseUrl() + "/graphics/o/tok-a");
    QVERIFY(app->outputsError().isEmpty());
    QVERIFY(m_log.isEmpty());
}

void TestApp::selectionRestoredAfterFetch_data()
{
    QTest::addColumn<int>("devices");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("selected");
    QTest::newRow("stored and listed") << 2 << "dev-2"
                                       << "dev-2";
    QTest::newRow("only device") << 1 << "dev-9"
                                 << "dev-1";
    QTest::newRow("several, none stored") << 2 << ""
                                          << "";
}

void TestApp::selectionRestoredAfterFetch()
{
    QFETCH(int, devices);
    QFETCH(QString, stored);
    QFETCH(QString, selected);
    addDevices(devices);
    auto app = makeApp({{"selected_device", stored}});
    QSignalSpy fetched(app.get(), &App::devicesChanged);
    signIn(*app);
    QTRY_COMPARE(fetched.size(), 1);
    QCOMPARE(app->devices().size(), devices);
    QCOMPARE(app->sourceManager()->deviceId(), selected);
    QCOMPARE(app->settings().selectedDevice(), selected.isEmpty() ? stored : selected);
}

void TestApp::serverRequests_data()
{
    QTest::addColumn<bool>("fetched");
    QTest::addColumn<QString>("op");
    QTest::addColumn<QJsonObject>("request");
    QTest::addColumn<QJsonObject>("reply");
    QTest::addColumn<QString>("selected");
    const QJsonObject unknown = object(R"({"ok":false,"error":"unknown_device"})");
    QTest::newRow("devices before fetch")
        << false << "devices" << QJsonObject() << object(R"({"devices":[]})") << "";
    QTest::newRow("devices") << true << "devices" << QJsonObject()
                             << object(R"x({"devices":[{"id":"dev-1","name":"Gym (dev-1)"},)x"
                                       R"x({"id":"dev-2","name":"dev-2"}]})x")
                             << "";
    QTest::newRow("use unknown") << true << "use" << object(R"({"device":"dev-9"})") << unknown
                                 << "";
    QTest::newRow("use in other case")
        << true << "use" << object(R"({"device":"DEV-2"})") << unknown << "";
    QTest::newRow("use known") << true << "use" << object(R"({"device":"dev-2"})")
                               << object(R"({"device":"dev-2"})") << "dev-2";
    QTest::newRow("op in other case") << false << "Status" << QJsonObject()
                                      << object(R"({"ok":false,"error":"unknown_op"})") << "";
}

void TestApp::serverRequests()
{
    QFETCH(bool, fetched);
    QFETCH(QString, op);
    QFETCH(QJsonObject, request);
    QFETCH(QJsonObject, reply);
    QFETCH(QString, selected);
    addDevices(2);
    auto app = makeApp();
    if (fetched) {
        signIn(*app);
        QTRY_COMPARE(app->devices().size(), 2);
    }
    QCOMPARE(app->handleServerRequest(op, request), reply);
    QCOMPARE(app->settings().selectedDevice(), selected);
    QCOMPARE(app->sourceManager()->deviceId(), selected);
}

void TestApp::outputsError_data()
{
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error");
    QTest::newRow("listed") << true << 0 << "";
    QTest::newRow("402") << true << 402 << "Graphics need an active Vantorelle cloud plan.";
    QTest::newRow("500") << true << 500 << "Vantorelle returned an error (500).";
    QTest::newRow("signed out") << false << 0 << kSignInSentence;
}

void TestApp::outputsError()
{
    QFETCH(bool, signedIn);
    QFETCH(int, status);
    QFETCH(QString, error);
    auto app = makeApp();
    QSignalSpy changed(app.get(), &App::outputsChanged);
    if (signedIn) {
        signIn(*app);
        QTRY_COMPARE(changed.size(), 1);
    }
    if (status)
        m_portal->fail("/api/graphics/outputs", status);
    std::optional<std::pair<bool, QString>> result;
    app->refreshOutputs([&](bool ok, const QString& text) { result = {ok, text}; });
    QTRY_VERIFY(result.has_value());
    QCOMPARE(result->first, error.isEmpty());
    QCOMPARE(result->second, error);
    QCOMPARE(app->outputsError(), error);
    QCOMPARE(app->outputs().size(), signedIn ? 1 : 0);
}

void TestApp::blockingRefreshHonoursItsLimit_data()
{
    QTest::addColumn<bool>("stall");
    QTest::newRow("portal stalls") << true;
    QTest::newRow("portal answers") << false;
}

void TestApp::blockingRefreshHonoursItsLimit()
{
    QFETCH(bool, stall);
    auto app = makeApp();
    QSignalSpy changed(app.get(), &App::outputsChanged);
    signIn(*app);
    QTRY_COMPARE(changed.size(), 1);
    sim::HttpResponse stalled;
    stalled.stall = true;
    if (stall)
        m_portal->setFailure("/api/graphics/outputs", stalled);
    QCOMPARE(app->refreshOutputsBlocking(stall ? 300 : 10000), !stall);
    QCOMPARE(changed.size(), stall ? 1 : 2);
}

void TestApp::lanDeviceGoesLiveWithoutSignIn()
{
    sim::FeedServer feed;
    QVERIFY(feed.start());
    feed.setExpectedToken("lan-token");
    const QJsonObject settings{
        {"selected_device", "dev-7"},
        {"routes", QJsonObject{{"dev-7", "lan"}}},
        {"lan", QJsonObject{{"dev-7", QJsonObject{{"host", "127.0.0.1"},
                                                  {"token", "lan-token"},
                                                  {"name", "Field house"}}}}}};
    AppEnvironment env = environment(settings);
    env.sources.feed.port = feed.serverPort();
    App app(env);
    QCOMPARE(app.sourceManager()->mode(), SourceManager::Mode::Network);
    QTRY_COMPARE(feed.authenticatedCount(), 1);
    feed.broadcast(object(R"({"type":"state","sport":"hockey","fields":{"home_score":2}})"));
    QTRY_VERIFY(app.sourceManager()->isLive());
    QCOMPARE(app.sourceManager()->status(),
             QStringLiteral("Live from Field house over your network"));
    QCOMPARE(app.live().sport(), QStringLiteral("hockey"));
    QVERIFY(!app.isSignedIn());
}

void TestApp::signOutClearsListsOnce()
{
    addDevices(1);
    auto app = makeApp();
    signIn(*app);
    QTRY_VERIFY(!app->devices().isEmpty() && !app->outputs().isEmpty());
    QSignalSpy devices(app.get(), &App::devicesChanged);
    QSignalSpy outputs(app.get(), &App::outputsChanged);
    app->portal().signOut();
    QCOMPARE(devices.size(), 1);
    QCOMPARE(outputs.size(), 1);
    QVERIFY(app->devices().isEmpty());
    QVERIFY(app->outputs().isEmpty());
}

QTEST_MAIN(TestApp)
#include "tst_app.moc"
