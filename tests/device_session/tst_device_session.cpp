#include "admin/device_session.h"
#include "links/http_link.h"
#include "links/usb_link.h"
#include "sim/admin_responder.h"
#include "sim/game.h"
#include "sim/lan_device.h"
#include "sim/usb_device.h"

#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <memory>

using namespace vantorelle;
using State = DeviceSession::State;

namespace {

DeviceSessionSettings fastSession()
{
    DeviceSessionSettings settings;
    settings.pollIntervalMs = 20;
    settings.pollTimeoutMs = 150;
    settings.requestTimeoutMs = 3000;
    settings.receiverLoginTimeoutMs = 200;
    settings.rebootTimeoutMs = 500;
    settings.verifyDelayMs = 10;
    settings.busyRetryDelayMs = 10;
    return settings;
}

UsbLinkSettings fastLink()
{
    UsbLinkSettings settings;
    settings.helloIntervalMs = 50;
    settings.giveUpMs = 300;
    settings.pingIntervalMs = 100;
    return settings;
}

// Catches the one answer of an operation.
template <typename T = bool> struct Answer
{
    DeviceSession::Done done()
    {
        return [this](const RpcResult& r) { ++calls, result = r; };
    }
    DeviceSession::Reply<T> reply()
    {
        return [this](const RpcResult& r, const T& v) { ++calls, result = r, value = v; };
    }
    bool wait()
    {
        return QTest::qWaitFor([this] { return calls > 0; }, 5000) && calls == 1;
    }

    int calls = 0;
    RpcResult result;
    T value{};
};

QList<State> statesOf(const QSignalSpy& spy)
{
    QList<State> states;
    for (const QList<QVariant>& arguments : spy)
        states.append(arguments.first().value<State>());
    return states;
}

// A session over a link to a simulated device; `Link` and `Device` name the route.
template <typename Link, typename Device> struct Bench
{
    bool reaches(State state, int ms = 5000)
    {
        return QTest::qWaitFor([&] { return session.state() == state; }, ms);
    }
    bool signIn(const QString& password = QStringLiteral("admin"))
    {
        session.setPassword(password);
        session.start(link.get());
        return reaches(State::Ready);
    }

    Device device;
    bool started = device.start();
    std::unique_ptr<Link> link;
    DeviceSession session{fastSession()};
    QSignalSpy states{&session, &DeviceSession::stateChanged};
    QSignalSpy envelopes{&session, &DeviceSession::envelope};
};

struct Usb : Bench<UsbLink, sim::UsbDevice>
{
    Usb() { link = std::make_unique<UsbLink>(device.portPath(), fastLink()); }
    sim::AdminResponder& responder() { return *device.admin(); }
};

struct Lan : Bench<HttpLink, sim::LanDevice>
{
    Lan() { link = std::make_unique<HttpLink>(device.address()); }
    sim::AdminResponder& responder() { return device.responder(); }
    int polls() { return device.http().requestCount("GET", QStringLiteral("/state")); }
};

} // namespace

class TestDeviceSession : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void signingIn_data();
    void signingIn();
    void mustChangeThenChange();
    void opening_data();
    void opening();
    void usbIsNeverPolledButCarriesLiveData();
    void operationsReturnRecords();
    void scanRefusedWhileSending_data();
    void scanRefusedWhileSending();
    void verifyWifi_data();
    void verifyWifi();
    void rebootEndsRestarting_data();
    void rebootEndsRestarting();
    void closeAndDeletion();

    void remotePollingWaitsForUserRequests();
    void pollTimeouts();
    void forgottenSignInIsRenewed_data();
    void forgottenSignInIsRenewed();
    void rebootOverNetwork();
};

void TestDeviceSession::signingIn_data()
{
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("failCode");
    QTest::addColumn<State>("outcome");
    QTest::addColumn<QString>("lastError");
    QTest::addColumn<QStringList>("sent");

    const QString rateText = QStringLiteral("Too many attempts, wait a minute");
    const QStringList login{QStringLiteral("login")};
    QTest::newRow("no stored password") << ""
                                        << "" << State::NeedsPassword << "" << QStringList();
    QTest::newRow("wrong password") << "nope"
                                    << "" << State::NeedsPassword << "" << login;
    QTest::newRow("bad_password") << "admin"
                                  << "bad_password" << State::NeedsPassword << "" << login;
    QTest::newRow("rate_limited") << "admin"
                                  << "rate_limited" << State::NeedsPassword << rateText << login;
    QTest::newRow("other failure") << "admin"
                                   << "internal" << State::Error << rateText << login;
    QTest::newRow("right password")
        << "admin"
        << "" << State::Ready << "" << QStringList{"login", "getStatus"};
}

void TestDeviceSession::signingIn()
{
    QFETCH(QString, password);
    QFETCH(QString, failCode);
    QFETCH(State, outcome);
    QFETCH(QString, lastError);
    QFETCH(QStringList, sent);
    Usb bench;
    QVERIFY(bench.started);
    if (!failCode.isEmpty())
        bench.responder().failNext("login", failCode, "Too many attempts, wait a minute");
    bench.session.setPassword(password);
    bench.session.start(bench.link.get());
    QVERIFY(bench.reaches(outcome));
    QTest::qWait(50);
    QCOMPARE(statesOf(bench.states), (QList<State>{State::Connecting, State::SigningIn, outcome}));
    QCOMPARE(bench.session.lastError(), lastError);
    QCOMPARE(bench.responder().methodsSeen(), sent);
    if (outcome == State::NeedsPassword) { // the user gives the right one
        bench.session.signIn("admin");
        QVERIFY(bench.reaches(State::Ready));
        QCOMPARE(bench.session.password(), QStringLiteral("admin"));
    }
}

void TestDeviceSession::mustChangeThenChange()
{
    Usb bench;
    bench.responder().setMustChangePassword(true);
    bench.session.setPassword("admin");
    bench.session.start(bench.link.get());
    QVERIFY(bench.reaches(State::NeedsNewPassword));
    QVERIFY(bench.session.mustChangePassword());

    Answer<> changed;
    bench.session.changePassword("admin", "a-longer-secret", changed.done());
    QVERIFY(changed.wait() && changed.result.ok);
    QCOMPARE(bench.session.state(), State::Ready);
    QVERIFY(!bench.session.mustChangePassword());
    QCOMPARE(bench.session.password(), QStringLiteral("a-longer-secret"));
    QCOMPARE(bench.responder().password(), QStringLiteral("a-longer-secret"));
}

void TestDeviceSession::opening_data()
{
    QTest::addColumn<bool>("receiver");
    QTest::addColumn<bool>("viaReceiver");
    QTest::addColumn<State>("outcome");
    QTest::addColumn<QString>("lastError");
    QTest::newRow("a receiver needs no sign-in") << true << false << State::Ready << "";
    QTest::newRow("a device behind a receiver, silent")
        << true << true << State::Error
        << "The paired device did not answer through the receiver. Check that the device is "
           "powered, in range of the receiver and linked to it, then try again.";
    QTest::newRow("not one of ours") << false << false << State::Error
                                     << "This USB port did not answer like a Vantorelle device. "
                                        "Check the cable and that the device has finished "
                                        "starting.";
}

void TestDeviceSession::opening()
{
    QFETCH(bool, receiver);
    QFETCH(bool, viaReceiver);
    QFETCH(State, outcome);
    QFETCH(QString, lastError);
    Usb bench;
    bench.device.setRole(sim::UsbDevice::Role::Receiver);
    bench.device.setAnswersHello(receiver);
    bench.device.setAnswersAdmin(false);
    bench.session.setPassword("admin");
    bench.session.start(bench.link.get());
    bench.session.setViaReceiver(viaReceiver);
    QVERIFY(bench.reaches(outcome));
    QCOMPARE(bench.session.isReceiverMode(), receiver && !viaReceiver);
    QCOMPARE(bench.session.lastError(), lastError);
    QCOMPARE(bench.states.last().at(1).toString(), lastError);
}

void TestDeviceSession::usbIsNeverPolledButCarriesLiveData()
{
    Usb bench;
    QVERIFY(bench.signIn());
    bench.device.startGame(20);
    QTRY_VERIFY(bench.envelopes.count() >= 5); // many poll intervals
    QVERIFY(!bench.responder().methodsSeen().contains("getState"));
    QVERIFY(bench.envelopes.last().first().toJsonObject().contains("seq"));
}

void TestDeviceSession::operationsReturnRecords()
{
    Usb bench;
    QVERIFY(bench.signIn());
    DeviceSession& session = bench.session;

    Answer<QList<WifiNetwork>> scan;
    session.scanWifi(scan.reply());
    QVERIFY(scan.wait());
    QCOMPARE(scan.value.size(), 4);
    QCOMPARE(scan.value.first().ssid + scan.value.first().auth.toString(), "Arena-Staffwpa2");
    QCOMPARE(scan.value.first().rssi, -48);

    Answer<QList<ControllerChoice>> list;
    session.listControllers(list.reply());
    QVERIFY(list.wait());
    QCOMPARE(list.value.size(), controllerCatalogue().size());
    Answer<> set;
    session.setController(list.value.at(2), set.done());
    QVERIFY(set.wait() && set.result.ok);
    Answer<ControllerChoice> config;
    session.getControllerConfig(config.reply());
    QVERIFY(config.wait());
    QCOMPARE(config.value.model, list.value.at(2).model);
    QCOMPARE(config.value.sport, list.value.at(2).sport);
    QCOMPARE(config.value.input_type, list.value.at(2).input_type);

    Answer<QString> key;
    session.enableWirelessTransmitter("24:6F:28:A1:B2:C3", true, key.reply());
    QVERIFY(key.wait() && key.value.size() == 32);
    Answer<WirelessLink> link;
    session.wirelessLink(link.reply());
    QVERIFY(link.wait());
    QCOMPARE(link.value.role, QStringLiteral("tx"));
    QCOMPARE(link.value.peer_mac, QStringLiteral("24:6F:28:A1:B2:C3"));
    QVERIFY(link.value.key_set);

    Answer<QString> token;
    session.ensureApiToken(token.reply());
    QVERIFY(token.wait() && !token.value.isEmpty());
    QCOMPARE(token.value, bench.responder().apiToken());
}

void TestDeviceSession::scanRefusedWhileSending_data()
{
    QTest::addColumn<QString>("role");
    QTest::addColumn<QString>("message");
    QTest::newRow("sending to a receiver")
        << "tx"
        << "This device is set to send its scores to a wireless receiver, so its Wi-Fi is "
           "switched off and it cannot see networks. Turn the wireless link off to use Wi-Fi.";
    QTest::newRow("link off: the scan's own failure") << "off"
                                                      << "The radio is busy";
}

void TestDeviceSession::scanRefusedWhileSending()
{
    QFETCH(QString, role);
    QFETCH(QString, message);
    Usb bench;
    QVERIFY(bench.signIn());
    bench.responder().setEspNowRole(role);
    bench.responder().failNext("scanWifi", "scan_failed", "The radio is busy");
    Answer<QList<WifiNetwork>> scan;
    bench.session.scanWifi(scan.reply());
    QVERIFY(scan.wait() && !scan.result.ok);
    QCOMPARE(scan.result.message, message);
}

void TestDeviceSession::verifyWifi_data()
{
    QTest::addColumn<QString>("pass");
    QTest::addColumn<QJsonObject>("status");
    QTest::addColumn<QString>("sentence");
    const auto provision = [](const char* state, const char* detail, const char* ip) {
        return QJsonObject{{"wifi_sta_ip", ip},
                           {"wifi_provision", QJsonObject{{"state", state}, {"detail", detail}}}};
    };
    QTest::newRow("joined") << "long-enough" << QJsonObject()
                            << "Joined Arena-Staff (192.168.1.57).";
    QTest::newRow("joined, no address") << "x" << provision("ok", "", "") << "Joined Arena-Staff.";
    QTest::newRow("refused") << "short" << QJsonObject()
                             << "The device could not join Arena-Staff: wrong password. Check "
                                "the password and try again.";
    QTest::newRow("reverted, no detail")
        << "x" << provision("reverted", "", "")
        << "The device could not join Arena-Staff. Check the password and try again.";
    QTest::newRow("pending")
        << "x" << provision("pending", "", "")
        << "The device is still working on joining Arena-Staff. Check back in a minute.";
}

void TestDeviceSession::verifyWifi()
{
    QFETCH(QString, pass);
    QFETCH(QJsonObject, status);
    QFETCH(QString, sentence);
    Usb bench;
    QVERIFY(bench.signIn());
    if (!status.isEmpty())
        bench.responder().setResult("getStatus", status);
    Answer<> configured;
    bench.session.configureWifi("Arena-Staff", pass, configured.done());
    QVERIFY(configured.wait() && configured.result.ok);
    Answer<QString> verdict;
    bench.session.verifyWifi("Arena-Staff", verdict.reply());
    QVERIFY(verdict.wait());
    QCOMPARE(verdict.value, sentence);
}

void TestDeviceSession::rebootEndsRestarting_data()
{
    QTest::addColumn<bool>("refused");
    QTest::newRow("no reply, then unplugged") << false;
    QTest::newRow("refused, then unplugged") << true;
}

void TestDeviceSession::rebootEndsRestarting()
{
    QFETCH(bool, refused);
    Usb bench;
    QVERIFY(bench.signIn());
    bench.device.setAnswersAdmin(refused);
    bench.responder().failNext("reboot", "denied", "Not now");
    // Unless it refuses, the device restarts as soon as it reads the request, without answering.
    QObject::connect(&bench.device, &sim::UsbDevice::adminRequest, &bench.device,
                     [&bench, refused](const QJsonObject& request) {
                         if (!refused && request.value("method") == "reboot")
                             bench.device.unplug();
                     });
    Answer<> reboot;
    bench.session.reboot(reboot.done());
    QCOMPARE(bench.session.isRestarting(), true);
    if (refused) {
        QVERIFY(reboot.wait());
        QVERIFY(!bench.session.isRestarting());
        bench.device.unplug();
    }
    QVERIFY(bench.reaches(refused ? State::Lost : State::Restarting));
    QVERIFY(reboot.wait());
    QCOMPARE(reboot.result.code,
             refused ? QStringLiteral("denied") : QStringLiteral("disconnected"));
    QCOMPARE(bench.session.isRestarting(), !refused);
}

void TestDeviceSession::closeAndDeletion()
{
    Usb bench;
    QVERIFY(bench.signIn());
    bench.device.setAnswersAdmin(false);
    Answer<> first;
    bench.session.refreshStatus(first.done());
    const int changes = bench.states.count();
    bench.session.close();
    QVERIFY(first.wait());
    QCOMPARE(first.result.message, QStringLiteral("Disconnected"));
    QCOMPARE(bench.session.state(), State::Idle);
    QCOMPARE(bench.states.count(), changes);
    QVERIFY(bench.session.password().isEmpty());

    // The link goes away under a request.
    bench.device.setAnswersAdmin(true);
    QVERIFY(bench.signIn());
    bench.device.setAnswersAdmin(false);
    Answer<> second;
    bench.session.refreshStatus(second.done());
    bench.link.reset();
    QVERIFY(second.wait());
    QCOMPARE(second.result.code, QStringLiteral("disconnected"));
    QCOMPARE(bench.session.state(), State::Lost);

    // The session goes away under a request: the answer that comes later is dropped.
    bench.device.setAnswersAdmin(true);
    bench.device.setAdminReplyDelay(50);
    UsbLink link(bench.device.portPath(), fastLink());
    auto* session = new DeviceSession(fastSession());
    session->setPassword("admin");
    session->start(&link);
    QTRY_COMPARE(session->state(), State::Ready);
    Answer<> third;
    session->refreshStatus(third.done());
    delete session;
    QTest::qWait(150);
    QCOMPARE(third.calls, 0);
}

// ---- over the network ----

void TestDeviceSession::remotePollingWaitsForUserRequests()
{
    Lan bench;
    QVERIFY(bench.started);
    DeviceSessionSettings settings = fastSession();
    settings.requestTimeoutMs = 800;
    bench.session.setSettings(settings);
    QVERIFY(bench.signIn());
    QTRY_VERIFY(bench.envelopes.count() >= 3);
    QCOMPARE(bench.envelopes.last().first().toJsonObject().value("type").toString(), "state");

    bench.device.setStalled("/api/status", true);
    Answer<> status;
    bench.session.refreshStatus(status.done());
    QTRY_COMPARE(bench.device.http().requestCount("GET", "/api/status"), 2); // one from sign-in
    const int polls = bench.polls();
    QTest::qWait(200); // ten poll intervals
    QCOMPARE(bench.polls(), polls);
    // Asked while the first request waits: it goes next, before any poll.
    Answer<QString> token;
    bench.session.ensureApiToken(token.reply());
    QVERIFY(status.wait()); // times out
    QCOMPARE(status.result.code, QStringLiteral("timeout"));
    QVERIFY(token.wait() && token.result.ok);
    QTRY_VERIFY(bench.polls() > polls);
    const QList<sim::HttpRequest>& requests = bench.device.http().requests();
    const auto stalled = std::find_if(requests.rbegin(), requests.rend(), [](const auto& r) {
        return r.path == QLatin1String("/api/status");
    });
    QVERIFY(stalled != requests.rbegin());
    QCOMPARE((stalled - 1)->path, QStringLiteral("/api/auth/api-token"));
}

void TestDeviceSession::pollTimeouts()
{
    Lan bench;
    QVERIFY(bench.signIn());
    bench.device.setStalled("/state", true);
    const int before = bench.polls();
    QTRY_COMPARE(bench.polls(), before + 2);
    bench.device.setStalled("/state", false); // the third poll is answered
    QTRY_VERIFY(bench.polls() >= before + 4);

    bench.device.setStalled("/state", true);
    const int again = bench.polls();
    QTRY_COMPARE(bench.polls(), again + 3); // two misses so far: the count was reset
    QCOMPARE(bench.session.state(), State::Ready);
    QVERIFY(bench.reaches(State::Lost));
    QCOMPARE(bench.states.last().at(1).toString(),
             QStringLiteral("The connection to the device was lost"));
}

void TestDeviceSession::forgottenSignInIsRenewed_data()
{
    QTest::addColumn<bool>("staleToken");
    QTest::newRow("forgotten session") << false;
    QTest::newRow("stale security token") << true;
}

void TestDeviceSession::forgottenSignInIsRenewed()
{
    QFETCH(bool, staleToken);
    Lan bench;
    QVERIFY(bench.signIn());
    const int changes = bench.states.count();
    if (staleToken) {
        bench.device.invalidateCsrf();
        Answer<QString> refused;
        bench.session.ensureApiToken(refused.reply());
        QVERIFY(refused.wait());
        QCOMPARE(refused.result.code, QStringLiteral("unauthorized"));
    } else {
        bench.device.forgetSession();
    }
    QTRY_COMPARE(bench.responder().methodsSeen().count("login"), 2);
    Answer<QString> token;
    bench.session.ensureApiToken(token.reply());
    QVERIFY(token.wait() && token.result.ok);
    const int envelopes = bench.envelopes.count();
    QTRY_VERIFY(bench.envelopes.count() > envelopes);
    QCOMPARE(bench.states.count(), changes);
}

void TestDeviceSession::rebootOverNetwork()
{
    Lan bench;
    QVERIFY(bench.signIn());
    bench.device.setRebootDowntime(60000);
    Answer<> reboot;
    bench.session.reboot(reboot.done());
    QVERIFY(reboot.wait());
    QVERIFY(bench.reaches(State::Restarting));
    QCOMPARE(bench.session.isRestarting(), true);
    QVERIFY(!statesOf(bench.states).contains(State::Lost));
}

QTEST_GUILESS_MAIN(TestDeviceSession)
#include "tst_device_session.moc"
