#include "admin/device_session.h"
#include "common/live_data_support.h"
#include "links/usb_link.h"
#include "live/live_data.h"
#include "live/source_manager.h"
#include "portal/portal_client.h"
#include "sim/feed_server.h"
#include "sim/portal_server.h"
#include "sim/usb_device.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace vantorelle;
using vantorelle::test::jsonObject;
using vantorelle::test::jsonText;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("whistle");
const QString kToken = QStringLiteral("feed-token");
const QString kLocalhost = QStringLiteral("127.0.0.1");
constexpr int kFastPollMs = 20;
constexpr int kSlowPollMs = 1000;

QString statePath(const QString& deviceId)
{
    return QStringLiteral("/devices/%1/state").arg(deviceId);
}

QJsonObject score(int home)
{
    return {{QStringLiteral("home_score"), home}};
}

// Everything the manager talks to, with every interval shrunk.
struct Rig
{
    explicit Rig(quint16 feedPort = 1010)
    {
        server.addAccount(kEmail, kPassword);
        server.addDevice(kEmail, {QStringLiteral("court-1"), QStringLiteral("Court 1")});
        server.addDevice(kEmail, {QStringLiteral("court-2"), QStringLiteral("Court 2")});
        SourceManagerSettings settings;
        settings.pollIntervalMs = kFastPollMs;
        settings.slowPollIntervalMs = kSlowPollMs;
        settings.feed = TlsFeedSettings{feedPort, 10, 150};
        manager = std::make_unique<SourceManager>(&portal, &live, settings);
        QObject::connect(manager.get(), &SourceManager::statusChanged, manager.get(),
                         [this] { published.append(manager->status()); });
    }

    bool signIn()
    {
        bool done = false;
        portal.signIn(kEmail, kPassword, [&done](const PortalResult&) { done = true; });
        return QTest::qWaitFor([&] { return done; }, 5000) && portal.isSignedIn();
    }
    // Signed in and following Court 1 while it is live.
    bool followCourtOne()
    {
        if (!started || !signIn())
            return false;
        server.setLiveData(QStringLiteral("court-1"), QStringLiteral("soccer"), score(21));
        manager->useCloud(QStringLiteral("court-1"), QStringLiteral("Court 1"));
        return QTest::qWaitFor([this] { return manager->status() == u"Live from Court 1"; });
    }
    int polls(const QString& deviceId)
    {
        return server.http().requestCount("GET", statePath(deviceId));
    }

    sim::PortalServer server;
    bool started = server.start();
    PortalClient portal{server.baseUrl()};
    LiveData live;
    std::unique_ptr<SourceManager> manager;
    QStringList published; // every status text, in order
};

} // namespace

class TestSourceManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cloudStates_data();
    void cloudStates();
    void repeatedFailuresSlowThePollDown();
    void hopelessFailuresStopPolling_data();
    void hopelessFailuresStopPolling();
    void replyForPreviousDeviceIsDropped();
    void signOutPausesPollingUntilSignIn();
    void identicalPublicationsEmitOnce();
    void networkFeedLifecycle();
    void rejectedTokenShowsFeedsReason_data();
    void rejectedTokenShowsFeedsReason();
    void linkSessionStates_data();
    void linkSessionStates();
};

void TestSourceManager::cloudStates_data()
{
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<int>("liveData"); // 0: none sent, 1: online, 2: offline
    QTest::addColumn<QString>("status");
    QTest::addColumn<bool>("isLive");
    QTest::addColumn<QString>("homeScore");

    QTest::newRow("online") << true << 1 << "Live from Court 1" << true << "12";
    QTest::newRow("offline") << true << 2 << "Court 1 is offline. Showing its last scores." << false
                             << "12";
    QTest::newRow("pending") << true << 0 << "Court 1 has not sent any scoreboard data yet."
                             << false << "";
    QTest::newRow("signed out") << false << 1 << "Sign in to see live scores." << false << "";
}

void TestSourceManager::cloudStates()
{
    QFETCH(bool, signedIn);
    QFETCH(int, liveData);
    QFETCH(QString, status);
    QFETCH(bool, isLive);
    QFETCH(QString, homeScore);

    Rig rig;
    QVERIFY(rig.started);
    if (signedIn)
        QVERIFY(rig.signIn());
    if (liveData)
        rig.server.setLiveData(QStringLiteral("court-1"), QStringLiteral("basketball"), score(12),
                               liveData == 1);
    QSignalSpy sourceChanged(&rig.live, &LiveData::sourceChanged);
    rig.manager->useCloud(QStringLiteral("court-1"), QStringLiteral("Court 1"));
    QCOMPARE(rig.published.value(0), QStringLiteral("Connecting to Court 1"));
    QCOMPARE(rig.live.source(), QStringLiteral("Court 1"));
    QCOMPARE(sourceChanged.count(), 1);

    QTRY_COMPARE(rig.manager->status(), status);
    QCOMPARE(rig.manager->isLive(), isLive);
    QCOMPARE(rig.live.value(QStringLiteral("home_score")), homeScore);
    QVERIFY(rig.manager->isPolling());
    if (!signedIn)
        QCOMPARE(rig.polls(QStringLiteral("court-1")), 0);
}

void TestSourceManager::repeatedFailuresSlowThePollDown()
{
    Rig rig;
    QVERIFY(rig.started && rig.signIn());
    rig.server.setLiveData(QStringLiteral("court-1"), QStringLiteral("hockey"), score(2));
    rig.server.fail(statePath(QStringLiteral("court-1")), 502);
    rig.manager->useCloud(QStringLiteral("court-1"), QStringLiteral("Court 1"));

    QTRY_COMPARE(rig.manager->pollInterval(), kSlowPollMs);
    // The slow pace starts with the sixth failure, not before: the seventh poll is a slow
    // interval away.
    QCOMPARE(rig.polls(QStringLiteral("court-1")), 6);
    QCOMPARE(rig.manager->status(),
             QStringLiteral(
                 "The Vantorelle service could not reach the live data feed. Try again shortly."));
    QVERIFY(rig.manager->isPolling());

    rig.server.clearFailure(statePath(QStringLiteral("court-1")));
    QTRY_COMPARE(rig.manager->status(), QStringLiteral("Live from Court 1"));
    QCOMPARE(rig.manager->pollInterval(), kFastPollMs);
}

void TestSourceManager::hopelessFailuresStopPolling_data()
{
    QTest::addColumn<QString>("deviceId");
    QTest::addColumn<int>("failStatus"); // 0: no injected failure
    QTest::addColumn<bool>("withCode");
    QTest::addColumn<QString>("status");

    const QString plan =
        QStringLiteral("This device needs an active Vantorelle cloud plan for that.");
    QTest::newRow("unknown device")
        << "court-9" << 0 << false << "That device is not on this account.";
    QTest::newRow("402 with its code") << "court-1" << 402 << true << plan;
    QTest::newRow("402 without a code") << "court-1" << 402 << false << plan;
}

void TestSourceManager::hopelessFailuresStopPolling()
{
    QFETCH(QString, deviceId);
    QFETCH(int, failStatus);
    QFETCH(bool, withCode);
    QFETCH(QString, status);

    Rig rig;
    QVERIFY(rig.started && rig.signIn());
    if (failStatus && withCode)
        rig.server.fail(statePath(deviceId), failStatus);
    else if (failStatus)
        rig.server.setFailure(statePath(deviceId), sim::HttpResponse::text({}, failStatus));
    rig.manager->useCloud(deviceId, QStringLiteral("Court"));

    QTRY_COMPARE(rig.manager->status(), status);
    QVERIFY(!rig.manager->isLive());
    QVERIFY(!rig.manager->isPolling());
    QTest::qWait(10 * kFastPollMs);
    QCOMPARE(rig.polls(deviceId), 1);

    // Selecting the device again is what resumes polling.
    rig.manager->useCloud(deviceId, QStringLiteral("Court"));
    QTRY_COMPARE(rig.polls(deviceId), 2);
}

void TestSourceManager::replyForPreviousDeviceIsDropped()
{
    Rig rig;
    QVERIFY(rig.started && rig.signIn());
    // Court 1's answer comes late, carrying scores that must never reach the model.
    sim::HttpResponse late = sim::HttpResponse::json(
        jsonObject(jsonText("{'type':'state','online':true,'fields':{'home_score':99}}")));
    late.delayMs = 300;
    rig.server.setFailure(statePath(QStringLiteral("court-1")), late);
    rig.server.setLiveData(QStringLiteral("court-2"), QStringLiteral("basketball"), score(3));
    QStringList seen;
    connect(&rig.live, &LiveData::changed, this,
            [&] { seen.append(rig.live.value(QStringLiteral("home_score"))); });

    rig.manager->useCloud(QStringLiteral("court-1"), QStringLiteral("Court 1"));
    QTRY_COMPARE(rig.polls(QStringLiteral("court-1")), 1);
    rig.manager->useCloud(QStringLiteral("court-2"), QStringLiteral("Court 2"));
    QTRY_COMPARE(rig.manager->status(), QStringLiteral("Live from Court 2"));
    // Long enough for the late answer to arrive and be dropped.
    QTest::qWait(late.delayMs + 200);

    QCOMPARE(rig.polls(QStringLiteral("court-1")), 1);
    QVERIFY2(!seen.contains(QStringLiteral("99")), qPrintable(seen.join(u',')));
    QCOMPARE(rig.live.value(QStringLiteral("home_score")), QStringLiteral("3"));
    QCOMPARE(rig.live.source(), QStringLiteral("Court 2"));
    QCOMPARE(rig.manager->status(), QStringLiteral("Live from Court 2"));
}

void TestSourceManager::signOutPausesPollingUntilSignIn()
{
    Rig rig;
    QVERIFY(rig.followCourtOne());

    rig.portal.signOut();
    QCOMPARE(rig.manager->status(), QStringLiteral("Signed out. Sign in to see live scores."));
    QVERIFY(!rig.manager->isLive());
    QVERIFY(!rig.manager->isPolling());
    const int polls = rig.polls(QStringLiteral("court-1"));
    QTest::qWait(10 * kFastPollMs);
    QCOMPARE(rig.manager->status(), QStringLiteral("Signed out. Sign in to see live scores."));
    QVERIFY(rig.polls(QStringLiteral("court-1")) <= polls + 1); // at most one was under way

    QVERIFY(rig.signIn());
    QVERIFY(rig.manager->isPolling());
    QTRY_COMPARE(rig.manager->status(), QStringLiteral("Live from Court 1"));
}

void TestSourceManager::identicalPublicationsEmitOnce()
{
    Rig rig;
    QVERIFY(rig.followCourtOne());
    const int polls = rig.polls(QStringLiteral("court-1"));
    QTRY_VERIFY(rig.polls(QStringLiteral("court-1")) >= polls + 3);
    QCOMPARE(rig.published, (QStringList{QStringLiteral("Connecting to Court 1"),
                                         QStringLiteral("Live from Court 1")}));
}

void TestSourceManager::networkFeedLifecycle()
{
    sim::FeedServer feed;
    feed.setExpectedToken(kToken);
    QVERIFY(feed.start());
    Rig rig(feed.serverPort());
    rig.manager->useLan(kLocalhost, kToken, QStringLiteral("Gym"));
    QCOMPARE(rig.manager->status(), QStringLiteral("Connecting to Gym on your network"));
    QCOMPARE(rig.live.source(), QStringLiteral("Gym"));
    QTRY_COMPARE(rig.manager->status(),
                 QStringLiteral("Connected to Gym, waiting for scoreboard data"));
    QVERIFY(!rig.manager->isLive());

    feed.broadcast(jsonObject(jsonText("{'type':'state','fields':{'home_score':5}}")));
    QTRY_COMPARE(rig.manager->status(), QStringLiteral("Live from Gym over your network"));
    QVERIFY(rig.manager->isLive());
    QCOMPARE(rig.live.value(QStringLiteral("home_score")), QStringLiteral("5"));

    rig.published.clear();
    feed.dropConnections();
    QTRY_COMPARE(rig.manager->status(),
                 QStringLiteral("Connected to Gym, waiting for scoreboard data"));
    QCOMPARE(rig.published.value(0), QStringLiteral("Reconnecting to Gym"));
    // The model keeps its last values through the outage.
    QCOMPARE(rig.live.value(QStringLiteral("home_score")), QStringLiteral("5"));
}

void TestSourceManager::rejectedTokenShowsFeedsReason_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<QString>("status");

    QTest::newRow("refused at the start")
        << "wrong"
        << "The device rejected the connection. Re-run device setup to refresh its access.";
    QTest::newRow("revoked while live") << kToken << "The device rejected the connection.";
}

void TestSourceManager::rejectedTokenShowsFeedsReason()
{
    QFETCH(QString, token);
    QFETCH(QString, status);

    sim::FeedServer feed;
    feed.setExpectedToken(kToken);
    QVERIFY(feed.start());
    Rig rig(feed.serverPort());
    rig.manager->useLan(kLocalhost, token, QStringLiteral("Gym"));
    if (token == kToken) {
        QTRY_COMPARE(feed.authenticatedCount(), 1);
        feed.broadcast(jsonObject(jsonText("{'type':'state','fields':{'home_score':1}}")));
        QTRY_VERIFY(rig.manager->isLive());
        feed.revokeAccess();
    }
    QTRY_COMPARE(rig.manager->status(), status);
    QVERIFY(!rig.manager->isLive());
    QVERIFY(!rig.published.contains(QStringLiteral("Reconnecting to Gym")));
    QVERIFY(!rig.manager->feed().isRunning());
}

void TestSourceManager::linkSessionStates_data()
{
    QTest::addColumn<bool>("reboot");
    QTest::addColumn<QString>("status");

    QTest::newRow("reboot left unanswered, then unplugged")
        << true << "Bench is restarting. Reopen the setup window to reconnect.";
    QTest::newRow("unplugged") << false << "Lost the connection to Bench";
}

void TestSourceManager::linkSessionStates()
{
    QFETCH(bool, reboot);
    QFETCH(QString, status);

    sim::UsbDevice device;
    QVERIFY(device.start());
    UsbLink link(device.portPath(), UsbLinkSettings{50, 300, 100, 40, 5000});
    DeviceSessionSettings sessionSettings;
    sessionSettings.rebootTimeoutMs = 300;
    auto session = std::make_shared<DeviceSession>(sessionSettings);
    session->setPassword(QStringLiteral("admin"));
    session->start(&link);
    QTRY_COMPARE(session->state(), DeviceSession::State::Ready);

    Rig rig;
    QVERIFY(rig.started && rig.signIn());
    rig.manager->useLink(session, QStringLiteral("Bench"));
    const std::weak_ptr<DeviceSession> watched = session;
    session.reset(); // the manager keeps it alive
    QCOMPARE(rig.manager->status(),
             QStringLiteral("Connected to Bench, waiting for scoreboard data"));
    QCOMPARE(rig.manager->sourceDescription(), link.kind());

    device.sendEnvelope(jsonObject(jsonText("{'type':'state','fields':{'home_score':7}}")));
    QTRY_COMPARE(rig.manager->status(), QStringLiteral("Live from Bench"));
    QVERIFY(rig.manager->isLive());
    QCOMPARE(rig.live.value(QStringLiteral("home_score")), QStringLiteral("7"));
    // A cable never needed the account.
    rig.portal.signOut();
    QCOMPARE(rig.manager->status(), QStringLiteral("Live from Bench"));

    if (reboot) {
        // The device restarts as soon as it reads the request, without answering.
        device.setAnswersAdmin(false);
        connect(&device, &sim::UsbDevice::adminRequest, &device,
                [&device](const QJsonObject&) { device.unplug(); });
        watched.lock()->reboot([](const RpcResult&) {});
    } else {
        device.unplug();
    }
    QTRY_COMPARE(rig.manager->status(), status);
    QVERIFY(!rig.manager->isLive());
    QCOMPARE(rig.live.value(QStringLiteral("home_score")), QStringLiteral("7"));

    rig.manager->stop();
    QVERIFY(watched.expired());
}

QTEST_GUILESS_MAIN(TestSourceManager)
#include "tst_source_manager.moc"
