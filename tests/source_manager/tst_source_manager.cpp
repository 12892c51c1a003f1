#include "common/app_support.h"
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
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>

#include <csignal>

using namespace vantorelle;

namespace {

QJsonObject json(const char* text)
{
    return test::jsonObject(test::jsonText(text));
}

// Every status a manager publishes, in order, marked "stale: " while stale.
struct Statuses : QStringList
{
    explicit Statuses(SourceManager& manager)
    {
        QObject::connect(&manager, &SourceManager::statusChanged, &context, [this, &manager] {
            append((manager.isStale() ? "stale: " : "") + manager.status());
        });
    }
    QObject context;
};

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
            auto session = test::signedInSession(&link);
            QVERIFY(session);
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
    // A device that hangs with its connection open (its process stopped) shows stale, then its
    // feed is dropped for silence and retried with the reason shown; running again, it is live.
    void hungDeviceIsDroppedAndFollowedAgain()
    {
        QProcess device;
        device.start(VANTORELLE_SIM, {"--lan", "--interval", "50"});
        QVERIFY(device.waitForStarted());
        const pid_t pid = pid_t(device.processId());
        const auto cleanup = qScopeGuard([&] {
            ::kill(pid, SIGCONT);
            device.kill();
            device.waitForFinished();
        });
        QString printed;
        QVERIFY(QTest::qWaitFor([&] {
            printed += device.readAllStandardOutput();
            return printed.contains(QRegularExpression("token: \\S+\n"));
        }));
        const quint16 port =
            QRegularExpression("feed: 127.0.0.1:(\\d+)\n").match(printed).captured(1).toUShort();
        const QString token = QRegularExpression("token: (\\S+)\n").match(printed).captured(1);
        Rig rig;
        SourceManagerSettings settings{20, 1000, 6, {port, 10, 150}};
        settings.feed.connectTimeoutMs = 500;
        settings.feed.authTimeoutMs = 500;
        settings.feed.silenceTimeoutMs = 2000;
        settings.staleAfterMs = 1000;
        settings.staleCheckMs = 50;
        SourceManager manager(&rig.portal, &rig.live, settings);
        Statuses published(manager);
        manager.useLan("127.0.0.1", token, "Sim");
        QTRY_VERIFY(manager.isLive());
        QSignalSpy connected(&manager.feed(), &TlsFeed::connectedChanged);
        QCOMPARE(::kill(pid, SIGSTOP), 0);
        QVERIFY(connected.wait(10000));
        QCOMPARE(connected.first(),
                 (QVariantList{false, "The device sent nothing for 2 s, so the connection was "
                                      "dropped."}));
        QTRY_COMPARE(manager.status(), "Reconnecting to Sim. The device did not answer on your "
                                       "network within 1 s.");
        QCOMPARE(::kill(pid, SIGCONT), 0);
        QTRY_COMPARE_WITH_TIMEOUT(manager.status(), "Live from Sim over your network", 10000);
        QVERIFY(!manager.isStale());
        // Stale came first, while the silent connection was still open.
        const qsizetype stale = published.indexOf(QRegularExpression("stale: .*"));
        QVERIFY2(stale > 0, qPrintable(published.join('|')));
        QCOMPARE(published.first(stale),
                 (QStringList{"Connecting to Sim on your network",
                              "Connected to Sim, waiting for scoreboard data",
                              "Live from Sim over your network"}));
        QVERIFY2(published.at(stale).contains(QRegularExpression("^stale: No data from Sim for "
                                                                 "[12] s$")),
                 qPrintable(published.join('|')));
        QCOMPARE(published.sliced(stale).filter(QRegularExpression("^(?!stale: )")).first(),
                 "Reconnecting to Sim");
    }
    // A device on a cable that answers pings is not stale however quiet; one that stops
    // answering anything, its port open, is. Speaking again, its next envelope makes it live.
    void mutedCableIsStale()
    {
        sim::UsbDevice device;
        QVERIFY(device.start());
        int pings = 0;
        connect(&device, &sim::UsbDevice::controlReceived, this,
                [&](const QJsonObject& message) { pings += message.value("t") == "ping"; });
        UsbLink link(device.portPath(), UsbLinkSettings{50, 300, 100});
        auto session = test::signedInSession(&link);
        QVERIFY(session);
        Rig rig;
        SourceManagerSettings settings{20, 1000, 6, {}};
        settings.linkSilenceMs = 500;
        settings.staleCheckMs = 50;
        SourceManager manager(&rig.portal, &rig.live, settings);
        Statuses published(manager);
        manager.useLink(session, "Bench");
        device.sendEnvelope(json("{'type':'state','fields':{'home_score':7}}"));
        QTRY_VERIFY(manager.isLive());
        const int answered = pings;
        QTRY_VERIFY(pings >= answered + 8); // 800 ms of answered pings
        QCOMPARE(published, (QStringList{"Connected to Bench, waiting for scoreboard data",
                                         "Live from Bench"}));
        device.setMuted(true);
        QTRY_VERIFY(manager.isStale());
        QVERIFY2(manager.status().contains(QRegularExpression("^No data from Bench for \\d+ s$")),
                 qPrintable(manager.status()));
        QVERIFY(link.isOpened());
        QCOMPARE(session->state(), DeviceSession::State::Ready);
        device.setMuted(false);
        device.sendEnvelope(json("{'type':'state','fields':{'home_score':8}}"));
        QTRY_COMPARE(manager.status(), "Live from Bench");
        QVERIFY(!manager.isStale());
        QCOMPARE(rig.live.value("home_score"), "8");
    }
    // A portal that fails for many rounds, by turns answering 500 and not at all: the polls slow
    // down to their cap, one sentence stays up, and the first good answer brings the device back
    // at the normal pace.
    void portalOutage()
    {
        Rig rig;
        QVERIFY(rig.signIn());
        rig.server.setLiveData("court-1", "hockey", json("{'home_score':4}"));
        rig.portal.setTransferTimeout(100);
        SourceManager manager(&rig.portal, &rig.live, {20, 150, 3, {}});
        Statuses published(manager);
        QList<int> paces; // the poll interval as each poll arrived
        const QString path = Rig::statePath("court-1");
        rig.server.http().route("GET", path, [&](const sim::HttpRequest&) {
            paces << manager.pollInterval();
            sim::HttpResponse answer = sim::HttpResponse::text({}, 500);
            answer.stall = paces.size() % 2 == 0;
            return answer;
        });
        manager.useCloud("court-1", "Court 1");
        QTRY_VERIFY_WITH_TIMEOUT(paces.size() >= 12, 10000);
        QCOMPARE(paces.first(12), (QList<int>{20, 20, 20, 150, 150, 150, 150, 150, 150, 150, 150,
                                              150})); // slowed by the third failure, then capped
        rig.portal.setTransferTimeout(20000);
        rig.server.http().removeRoute("GET", path);
        QTRY_COMPARE(manager.status(), "Live from Court 1");
        QCOMPARE(manager.pollInterval(), 20);
        QCOMPARE(rig.live.value("home_score"), "4");
        QCOMPARE(published,
                 (QStringList{"Connecting to Court 1", "Vantorelle returned an error (500).",
                              "Live from Court 1"}));
    }
};

QTEST_GUILESS_MAIN(TestSourceManager)
#include "tst_source_manager.moc"
