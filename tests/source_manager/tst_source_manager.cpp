#include "common/live_data_support.h"
#include "device_session.h"
#include "live_data.h"
#include "portal_client.h"
#include "sim/feed_server.h"
#include "sim/portal_server.h"
#include "sim/usb_device.h"
#include "source_manager.h"
#include "usb_link.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;

namespace {

QJsonObject json(const char* text)
{
    return test::jsonObject(test::jsonText(text));
}

// Everything the manager talks to, polls every 20 ms and 1 s once slowed down. The account
// holds court-1, 2 and 3.
struct Rig
{
    explicit Rig(quint16 feedPort = 1010)
    {
        server.addAccount("coach@example.com", "whistle");
        server.addDevice("coach@example.com", {"court-1", "Court 1"});
        server.addDevice("coach@example.com", {"court-2", "Court 2"});
        server.addDevice("coach@example.com", {"court-3", "Court 3"});
        manager = std::make_unique<SourceManager>(
            &portal, &live, SourceManagerSettings{20, 1000, 6, {feedPort, 10, 150}});
        QObject::connect(manager.get(), &SourceManager::statusChanged, manager.get(),
                         [this] { published.append(manager->status()); });
    }
    bool signIn()
    {
        bool done = false;
        portal.signIn("coach@example.com", "whistle", [&](auto&) { done = true; });
        return started && QTest::qWaitFor([&] { return done; }) && portal.isSignedIn();
    }
    int polls(const QString& id) { return server.http().requestCount("GET", statePath(id)); }
    static QString statePath(const QString& id) { return "/devices/" + id + "/state"; }

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
    void cloudFollowsSignIn()
    {
        Rig rig;
        rig.server.setLiveData("court-1", "soccer", json("{'home_score':21}"));
        rig.live.apply(json("{'fields':{'home_score':1}}")); // the previous device's scores
        QSignalSpy sourceChanged(&rig.live, &LiveData::sourceChanged);
        rig.manager->useCloud("court-1", "Court 1");
        QCOMPARE(sourceChanged.count(), 1);
        QCOMPARE(rig.live.source(), "Court 1");
        QCOMPARE(rig.live.value("home_score"), "");
        QCOMPARE(rig.manager->status(), "Sign in to see live scores.");
        QVERIFY(rig.manager->isPolling());
        QCOMPARE(rig.polls("court-1"), 0);
        QVERIFY(rig.signIn());
        QTRY_VERIFY(rig.manager->isLive());
        QCOMPARE(rig.live.value("home_score"), "21");
        // Polls that bring the same state publish nothing new.
        QTRY_VERIFY(rig.polls("court-1") >= 4);
        QCOMPARE(rig.published, (QStringList{"Connecting to Court 1", "Sign in to see live scores.",
                                             "Live from Court 1"}));
        rig.portal.signOut();
        QCOMPARE(rig.manager->status(), "Signed out. Sign in to see live scores.");
        QVERIFY(!rig.manager->isLive() && !rig.manager->isPolling());
        QVERIFY(rig.signIn());
        QVERIFY(rig.manager->isPolling());
        QTRY_COMPARE(rig.manager->status(), "Live from Court 1");
        rig.manager->useCloud("court-2", "Court 2");
        QTRY_COMPARE(rig.manager->status(), "Court 2 has not sent any scoreboard data yet.");
        rig.server.setLiveData("court-2", "basketball", json("{'home_score':12}"), false);
        QTRY_COMPARE(rig.manager->status(), "Court 2 is offline. Showing its last scores.");
        QVERIFY(!rig.manager->isLive());
        QCOMPARE(rig.live.value("home_score"), "12");
    }
    void failingPolls()
    {
        Rig rig;
        QVERIFY(rig.signIn());
        rig.server.setLiveData("court-1", "hockey", json("{'home_score':2}"));
        rig.server.fail(Rig::statePath("court-1"), 502);
        rig.manager->useCloud("court-1", "Court 1");
        QTRY_COMPARE(rig.manager->pollInterval(), 1000);
        // The slow pace starts with the sixth failure: the seventh poll is a slow interval away.
        QCOMPARE(rig.polls("court-1"), 6);
        QCOMPARE(rig.manager->status(),
                 "The Vantorelle service could not reach the live data feed. Try again shortly.");
        QVERIFY(rig.manager->isPolling());
        rig.server.clearFailure(Rig::statePath("court-1"));
        QTRY_COMPARE(rig.manager->status(), "Live from Court 1");
        QCOMPARE(rig.manager->pollInterval(), 20);
        // Without a plan or the device on the account, asking again cannot help.
        rig.server.fail(Rig::statePath("court-2"), 402);
        rig.server.setFailure(Rig::statePath("court-3"), sim::HttpResponse::text({}, 402));
        const char* plan = "This device needs an active Vantorelle cloud plan for that.";
        for (const auto& [id, status] :
             {std::pair{"court-9", "That device is not on this account."},
              {"court-2", plan},
              {"court-3", plan}}) {
            rig.manager->useCloud(id, "Court");
            QTRY_COMPARE(rig.manager->status(), status);
            QVERIFY(!rig.manager->isPolling());
            QCOMPARE(rig.polls(id), 1);
        }
        // Choosing the device again is what resumes polling.
        rig.manager->useCloud("court-3", "Court");
        QTRY_COMPARE(rig.polls("court-3"), 2);
    }
    void replyForPreviousDeviceIsDropped()
    {
        Rig rig;
        QVERIFY(rig.signIn());
        // Court 1's answer comes late, carrying scores that must never reach the model.
        sim::HttpResponse late = sim::HttpResponse::json(
            json("{'type':'state','online':true,'fields':{'home_score':99}}"));
        late.delayMs = 300;
        rig.server.setFailure(Rig::statePath("court-1"), late);
        rig.server.setLiveData("court-2", "basketball", json("{'home_score':3}"));
        QStringList seen;
        connect(&rig.live, &LiveData::changed, this, [&] { seen << rig.live.value("home_score"); });
        // The portal client's own replies show when the late one has been handled.
        int lateReplies = 0;
        auto count = [&](QNetworkReply* r) { lateReplies += r->url().path().contains("court-1"); };
        connect(rig.portal.findChild<QNetworkAccessManager*>(), &QNetworkAccessManager::finished,
                count);
        rig.manager->useCloud("court-1", "Court 1");
        QTRY_COMPARE(rig.polls("court-1"), 1);
        rig.manager->useCloud("court-2", "Court 2");
        QTRY_COMPARE(lateReplies, 1);
        QTRY_COMPARE(rig.manager->status(), "Live from Court 2");
        QVERIFY2(!seen.contains("99"), qPrintable(seen.join(u',')));
        QCOMPARE(rig.live.value("home_score"), "3");
    }
    void networkFeed()
    {
        sim::FeedServer feed;
        feed.setExpectedToken("feed-token");
        QVERIFY(feed.start());
        Rig rig(feed.serverPort());
        rig.manager->useLan("127.0.0.1", "feed-token", "Gym");
        QTRY_COMPARE(rig.published.size(), 2); // connected
        feed.broadcast(json("{'type':'state','fields':{'home_score':5}}"));
        QTRY_VERIFY(rig.manager->isLive());
        feed.dropConnections();
        QTRY_COMPARE(rig.published.size(), 5);       // reconnected
        QCOMPARE(rig.live.value("home_score"), "5"); // kept through the outage
        feed.broadcast(json("{'type':'state','fields':{'home_score':6}}"));
        QTRY_VERIFY(rig.manager->isLive());
        // A revoked token stops the feed with its reason, without reconnecting.
        feed.revokeAccess();
        QTRY_VERIFY(!rig.manager->feed().isRunning());
        const QString waiting = "Connected to Gym, waiting for scoreboard data";
        const QString live = "Live from Gym over your network";
        QCOMPARE(rig.published, (QStringList{"Connecting to Gym on your network", waiting, live,
                                             "Reconnecting to Gym", waiting, live,
                                             "The device rejected the connection."}));
        QVERIFY(!rig.manager->isLive());
    }
    // A live route that goes quiet says so, with the seconds rising, and keeps the scores; the
    // next envelope ends it. An unreachable device says why while the feed keeps trying.
    void quietFeedIsStale()
    {
        sim::FeedServer feed;
        feed.setExpectedToken("feed-token");
        QVERIFY(feed.start());
        Rig rig;
        SourceManagerSettings settings{20, 1000, 6, {feed.serverPort(), 10, 150}};
        settings.staleAfterMs = 1000;
        settings.staleCheckMs = 50;
        SourceManager manager(&rig.portal, &rig.live, settings);
        manager.useLan("127.0.0.1", "feed-token", "Gym");
        QTRY_VERIFY(manager.feed().isAuthenticated());
        QCOMPARE(manager.ageMs(), -1);
        feed.broadcast(json("{'type':'state','fields':{'home_score':5}}"));
        QTRY_VERIFY(manager.isLive());
        QVERIFY(!manager.isStale());
        QTRY_COMPARE(manager.status(), "No data from Gym for 1 s");
        QVERIFY(manager.isStale() && manager.isLive());
        QVERIFY(manager.ageMs() >= 1000);
        QTRY_COMPARE_WITH_TIMEOUT(manager.status(), "No data from Gym for 2 s", 3000);
        QCOMPARE(rig.live.value("home_score"), "5");
        feed.broadcast(json("{'type':'heartbeat'}"));
        QTRY_COMPARE(manager.status(), "Live from Gym over your network");
        QVERIFY(!manager.isStale());
        QVERIFY(manager.ageMs() < 1000);

        const quint16 port = feed.serverPort();
        feed.close();
        feed.dropConnections();
        QTRY_COMPARE(manager.status(), "Reconnecting to Gym");
        QVERIFY(!manager.isStale());
        QTRY_COMPARE(manager.status(), "Reconnecting to Gym. Could not reach the device on your "
                                       "network (Connection refused).");
        QVERIFY(feed.start(port));
        QTRY_COMPARE(manager.status(), "Connected to Gym, waiting for scoreboard data");
    }
    // A session over a cable, lost to a reboot or to unplugging.
    void linkSessionStates()
    {
        for (const bool reboot : {true, false}) {
            sim::UsbDevice device;
            QVERIFY(device.start());
            UsbLink link(device.portPath(), UsbLinkSettings{50, 300, 100});
            auto session = std::make_shared<DeviceSession>();
            session->setPassword("admin");
            session->start(&link);
            QTRY_COMPARE(session->state(), DeviceSession::State::Ready);
            Rig rig;
            QVERIFY(rig.signIn());
            rig.manager->useLink(session, "Bench");
            const std::weak_ptr<DeviceSession> watched = std::exchange(session, {});
            QCOMPARE(rig.manager->status(), "Connected to Bench, waiting for scoreboard data");
            device.sendEnvelope(json("{'type':'state','fields':{'home_score':7}}"));
            QTRY_COMPARE(rig.manager->status(), "Live from Bench");
            rig.portal.signOut(); // a cable never needed the account
            QCOMPARE(rig.manager->status(), "Live from Bench");
            if (reboot) {
                // The device restarts as soon as it reads the request, without answering.
                device.setAnswersAdmin(false);
                connect(&device, &sim::UsbDevice::adminRequest, &device, [&] { device.unplug(); });
                watched.lock()->reboot([](const RpcResult&) {});
            } else {
                device.unplug();
            }
            QTRY_COMPARE(rig.manager->status(),
                         reboot ? "Bench is restarting. Reopen the setup window to reconnect."
                                : "Lost the connection to Bench");
            QVERIFY(!rig.manager->isLive());
            QCOMPARE(rig.live.value("home_score"), "7");
            rig.manager->stop(); // the manager let the session go
            QVERIFY(watched.expired());
        }
    }
};

QTEST_GUILESS_MAIN(TestSourceManager)
#include "tst_source_manager.moc"
