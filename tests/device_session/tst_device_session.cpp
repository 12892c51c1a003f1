#include "common/test_support.h"
#include "device_session.h"
#include "http_link.h"
#include "sim/admin_responder.h"
#include "sim/lan_device.h"
#include "sim/usb_device.h"
#include "usb_link.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <optional>

using namespace vantorelle;
using S = DeviceSession;
using State = DeviceSession::State;

// The record an operation hands back, by its completion's type (bool: none).
template <typename T> T recordOf(std::function<void(const RpcResult&, const T&)>);
bool recordOf(S::Done);

namespace {

// Poll interval and time-out, request, receiver sign-in and reboot time-outs, verify and busy
// pauses.
const DeviceSessionSettings kFast{20, 250, 3000, 200, 300, 10, 10};
const QString kLost = QStringLiteral("The connection to the device was lost");

// Runs one operation of `session` to its answer: the result and the record it hands back.
template <typename... Params, typename... Given>
auto ask(S& session, void (S::*operation)(Params...), Given&&... given)
{
    using T = decltype(recordOf(
        std::declval<std::tuple_element_t<sizeof...(Params) - 1, std::tuple<Params...>>>()));
    auto got = std::make_shared<std::optional<std::pair<RpcResult, T>>>();
    if constexpr (std::is_same_v<T, bool>)
        (session.*operation)(given..., [got](const RpcResult& r) { got->emplace(r, true); });
    else
        (session.*operation)(given...,
                             [got](const RpcResult& r, const T& v) { got->emplace(r, v); });
    (void)QTest::qWaitFor([got] { return got->has_value(); }, 5000);
    return got->value_or(std::pair{RpcResult::failure("no_answer", {}), T{}});
}

QString text(const RpcResult& result)
{
    return result.code + ": " + result.message;
}

template <typename Link, typename Device> struct Bench
{
    bool reaches(State state)
    {
        return QTest::qWaitFor([&] { return session.state() == state; }, 5000);
    }
    bool signIn()
    {
        session.setPassword("admin");
        session.start(link.get());
        return reaches(State::Ready);
    }
    Device device;
    bool started = device.start();
    std::unique_ptr<Link> link;
    DeviceSession session{kFast};
    QSignalSpy stateSpy{&session, &DeviceSession::stateChanged};
    QList<State> states;
    QMetaObject::Connection recorder =
        QObject::connect(&session, &S::stateChanged, [this](State state) { states << state; });
    QSignalSpy envelopes{&session, &DeviceSession::envelope};
};

struct Usb : Bench<UsbLink, sim::UsbDevice>
{
    Usb() { link = std::make_unique<UsbLink>(device.portPath(), UsbLinkSettings{50, 300, 100}); }
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
    void defaults()
    {
        const DeviceSessionSettings s = DeviceSession().settings();
        QCOMPARE((QList<int>{s.pollIntervalMs, s.pollTimeoutMs, s.requestTimeoutMs,
                             s.receiverLoginTimeoutMs, s.rebootTimeoutMs, s.verifyDelayMs,
                             s.busyRetryDelayMs}),
                 (QList<int>{1000, 6000, 20000, 30000, 8000, 3000, 250}));
    }
    // The stored password is tried first; a refused one leaves the choice to the user, and a
    // forced change comes before the session is ready. A receiver needs no sign-in.
    void opening_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<QString>("device"); // a failure code for the sign-in, or what it is
        QTest::addColumn<QList<State>>("states");
        QTest::addColumn<QString>("lastError");
        QTest::addColumn<QStringList>("sent");
        const auto row = [](const char* name, const char* password, const char* device,
                            State outcome, const char* lastError, const QStringList& sent) {
            const bool receiver = qstrcmp(device, "receiver") == 0;
            QTest::newRow(name) << password << device
                                << (receiver ? QList<State>{State::Connecting, outcome}
                                             : QList<State>{State::Connecting, State::SigningIn,
                                                            outcome})
                                << lastError << sent;
        };
        const QStringList login{"login"}, ready{"login", "getStatus"};
        row("no stored password", "", "", State::NeedsPassword, "", {});
        row("wrong password", "nope", "", State::NeedsPassword, "", login);
        for (const char* refusal : {"unauthorized", "invalid_credentials", "forbidden"})
            row(refusal, "admin", refusal, State::NeedsPassword, "", login);
        row("rate_limited", "admin", "rate_limited", State::NeedsPassword, "Wait", login);
        row("other failure", "admin", "internal", State::Error, "Wait", login);
        row("right password", "admin", "", State::Ready, "", ready);
        row("a new password is due", "admin", "must change", State::NeedsNewPassword, "", ready);
        row("a device behind a silent receiver", "admin", "behind a receiver", State::Error,
            "The paired device did not answer through the receiver. Check that the device is "
            "powered, in range of the receiver and linked to it, then try again.",
            {});
        row("a receiver", "admin", "receiver", State::Ready, "", {});
    }
    void opening()
    {
        VANTORELLE_NEEDS_PTY();
        QFETCH(QString, password);
        QFETCH(QString, device);
        QFETCH(QList<State>, states);
        QFETCH(QString, lastError);
        Usb bench;
        const bool mustChange = device == "must change", receiver = device.contains("receiver");
        bench.responder().setMustChangePassword(mustChange);
        if (!device.isEmpty() && !mustChange && !receiver)
            bench.responder().failNext("login", device, "Wait");
        bench.device.setRole(receiver ? sim::UsbDevice::Role::Receiver
                                      : sim::UsbDevice::Role::Device);
        bench.device.setAnswersAdmin(!receiver);
        QSignalSpy status(&bench.session, &DeviceSession::statusUpdated);
        bench.session.setPassword(password);
        bench.session.start(bench.link.get());
        bench.session.setViaReceiver(device == "behind a receiver");
        QVERIFY(bench.reaches(states.last()));
        QCOMPARE(bench.states, states);
        QCOMPARE(bench.session.lastError(), lastError);
        QCOMPARE(bench.stateSpy.last().at(1).toString(),
                 states.last() == State::Error ? lastError : "");
        QTEST(bench.responder().methodsSeen(), "sent");
        QCOMPARE(status.count(), bench.responder().methodsSeen().count("getStatus"));
        QCOMPARE(bench.session.mustChangePassword(), mustChange);
        QCOMPARE(bench.session.isReceiverMode(), device == "receiver");
        if (receiver)
            return;
        if (mustChange)
            QVERIFY(ask(bench.session, &S::changePassword, "admin", "new-secret").first.ok);
        else if (states.last() != State::Ready)
            bench.session.signIn("admin"); // the user gives the right one
        QVERIFY(bench.reaches(State::Ready));
        QVERIFY(!bench.session.mustChangePassword());
        QCOMPARE(bench.session.password() + " " + bench.responder().password(),
                 mustChange ? "new-secret new-secret" : "admin admin");
    }
    // Each operation turns the device's answer into a record; a USB link is never polled.
    void operations()
    {
        VANTORELLE_NEEDS_PTY();
        Usb bench;
        QVERIFY(bench.signIn());
        S& session = bench.session;
        sim::AdminResponder& device = bench.responder();
        DeviceSessionSettings settings = kFast;
        settings.busyRetryDelayMs = 300;
        session.setSettings(settings);
        bench.device.setBusyReplies(1);
        QElapsedTimer elapsed;
        elapsed.start();
        const QJsonArray networks{QJsonObject{{"ssid", "Arena"}, {"auth", "wpa2"}, {"rssi", -48}},
                                  QJsonObject{{"ssid", "Open"}, {"rssi", "strong"}}};
        device.setResult("scanWifi", {{"networks", networks}});
        QStringList seen;
        for (const WifiNetwork& n : ask(session, &S::scanWifi).second)
            seen << n.ssid + " " + n.auth.toString() + " " + QString::number(n.rssi);
        QVERIFY(elapsed.elapsed() >= 300); // the busy device was asked again after the pause
        QCOMPARE(seen, QStringList({"Arena wpa2 -48", "Open  0"}));
        const auto choice = [](const ControllerChoice& c) {
            return QStringList{c.manufacturer, c.model, c.sport, c.input_type}.join('/');
        };
        const ControllerChoice bridge{"Vantorelle", "Wireless Bridge", "basketball", "wireless"};
        QVERIFY(ask(session, &S::setController, bridge).first.ok);
        QCOMPARE(choice(ask(session, &S::getControllerConfig).second),
                 "Vantorelle/Wireless Bridge/basketball/wireless");
        const QString mac = "24:6F:28:A1:B2:C3";
        QCOMPARE(ask(session, &S::enableWirelessTransmitter, mac, true).second.size(), 32);
        const WirelessLink link = ask(session, &S::wirelessLink).second;
        QCOMPARE(link.role + " " + link.peer_mac + " " + QString::number(link.key_set),
                 "tx 24:6F:28:A1:B2:C3 1");
        const QString token = ask(session, &S::ensureApiToken).second;
        QCOMPARE(token, device.apiToken());
        QCOMPARE(ask(session, &S::getBlePasskey).second, "482913");
        QCOMPARE(ask(session, &S::getDeviceId).second, "VT-0042");
        device.setResult("getDeviceId", {});
        QCOMPARE(text(ask(session, &S::getDeviceId).first),
                 "no_device_id: The device did not tell its id.");
        // A failed scan on a device that sends to a receiver says why its Wi-Fi is off.
        device.setResult("scanWifi", {});
        device.setEspNowRole("off");
        device.failNext("scanWifi", "scan_failed", "Busy");
        QCOMPARE(text(ask(session, &S::scanWifi).first), "scan_failed: Busy");
        device.setEspNowRole("tx");
        device.failNext("scanWifi", "scan_failed", "Busy");
        QCOMPARE(text(ask(session, &S::scanWifi).first),
                 "wifi_off: This device is set to send its scores to a wireless receiver, so its "
                 "Wi-Fi is switched off and it cannot see networks. Turn the wireless link off to "
                 "use Wi-Fi.");
        // After a Wi-Fi change, the device's status tells how the join went.
        QVERIFY(ask(session, &S::configureWifi, "Arena-Staff", "short").first.ok);
        QCOMPARE(ask(session, &S::verifyWifi, "Arena-Staff").second,
                 "The device could not join Arena-Staff: wrong password. Check the password and "
                 "try again.");
        const QList<std::pair<QJsonObject, QString>> joins{
            {{{"state", "ok"}}, "Joined Arena-Staff."},
            {{{"state", "ok"}, {"ip", "10.0.0.9"}}, "Joined Arena-Staff (10.0.0.9)."},
            {{{"state", "reverted"}},
             "The device could not join Arena-Staff. Check the password and try again."},
            {{{"state", "pending"}},
             "The device is still working on joining Arena-Staff. Check back in a minute."}};
        for (const auto& [join, sentence] : joins) {
            device.setResult("getStatus",
                             {{"wifi_provision", join}, {"wifi_sta_ip", join.value("ip")}});
            QCOMPARE(ask(session, &S::verifyWifi, "Arena-Staff").second, sentence);
        }
        bench.device.startGame(20);
        QTRY_VERIFY(bench.envelopes.count() >= 5); // many poll intervals
        QVERIFY(!device.methodsSeen().contains("getState"));
    }
    // Success, a time-out or a dropped link mean the device is restarting; a refusal does not.
    void restarting_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("device"); // what the device does with the request
        QTest::addColumn<QString>("code");
        QTest::addColumn<State>("outcome");
        const auto row = [](const char* name, const char* method, const char* device,
                            const char* code, State outcome) {
            QTest::newRow(name) << method << device << code << outcome;
        };
        row("reboot, dropped unanswered", "reboot", "drops", "disconnected", State::Restarting);
        row("reboot, no answer in time", "reboot", "silent", "timeout", State::Restarting);
        row("reboot refused", "reboot", "refuses", "denied", State::Lost);
        row("otaApply answered", "otaApply", "answers", "", State::Restarting);
        row("c6OtaApply answered", "c6OtaApply", "answers", "", State::Restarting);
    }
    void restarting()
    {
        VANTORELLE_NEEDS_PTY();
        QFETCH(QString, method);
        QFETCH(QString, device);
        QFETCH(State, outcome);
        Usb bench;
        QVERIFY(bench.signIn());
        bench.device.setAnswersAdmin(device == "answers" || device == "refuses");
        if (device == "refuses")
            bench.responder().failNext(method, "denied", "Not now");
        if (device == "drops")
            QObject::connect(&bench.device, &sim::UsbDevice::adminRequest, &bench.device,
                             [&bench] { bench.device.unplug(); });
        const QHash<QString, void (S::*)(S::Done)> operations{
            {"reboot", &S::reboot}, {"otaApply", &S::otaApply}, {"c6OtaApply", &S::c6OtaApply}};
        QTEST(ask(bench.session, operations.value(method)).first.code, "code");
        bench.device.unplug();
        QVERIFY(bench.reaches(outcome));
        QCOMPARE(bench.session.isRestarting(), outcome == State::Restarting);
    }
    void closeAndLinkLoss()
    {
        VANTORELLE_NEEDS_PTY();
        Usb bench;
        bench.device.setAnswersAdmin(false);
        bench.session.setPassword("admin");
        bench.session.start(bench.link.get());
        QVERIFY(bench.reaches(State::SigningIn));
        QStringList answers;
        const auto collect = [&answers](const RpcResult& r) { answers << text(r); };
        bench.session.refreshStatus(collect);
        const qsizetype changes = bench.stateSpy.count();
        bench.session.close(); // the cancelled sign-in belongs to a conversation that is over
        QCOMPARE(answers, QStringList{"disconnected: Disconnected"});
        QCOMPARE(bench.session.state(), State::Idle);
        QCOMPARE(bench.stateSpy.count(), changes);
        QVERIFY(bench.session.password().isEmpty());
        bench.device.setAnswersAdmin(true);
        QVERIFY(bench.signIn());
        bench.device.setAnswersAdmin(false);
        bench.session.refreshStatus(collect);
        bench.link.reset();
        QCOMPARE(answers.last(), "disconnected: " + kLost);
        QCOMPARE(bench.stateSpy.last(), (QVariantList{QVariant::fromValue(State::Lost), kLost}));
    }
    // Three polls missed in a row lose the device; an answered one starts the count again.
    void threeMissedPolls()
    {
        Lan bench;
        QVERIFY(bench.signIn());
        const int before = bench.polls();
        bench.device.setStalled("/state", true);
        QObject::connect(&bench.device.http(), &sim::HttpServer::requestReceived, &bench.device,
                         [&](const sim::HttpRequest& request) {
                             if (request.path == "/state") // only the third is answered
                                 bench.device.setStalled("/state", bench.polls() - before != 3);
                         });
        QVERIFY(bench.reaches(State::Lost));
        QCOMPARE(bench.polls() - before, 6);
        QCOMPARE(bench.stateSpy.last().at(1).toString(), kLost);
    }
    // A forgotten sign-in is renewed unseen; a restart shows as polls that no longer get through.
    void networkSession()
    {
        Lan bench;
        QVERIFY(bench.signIn());
        const qsizetype changes = bench.stateSpy.count();
        bench.device.forgetSession();
        QTRY_COMPARE(bench.responder().methodsSeen().count("login"), 2);
        bench.device.invalidateCsrf();
        QCOMPARE(ask(bench.session, &S::ensureApiToken).first.code, "unauthorized");
        QTRY_COMPARE(bench.responder().methodsSeen().count("login"), 3);
        QVERIFY(ask(bench.session, &S::ensureApiToken).first.ok);
        QCOMPARE(bench.stateSpy.count(), changes);
        bench.device.setRebootDowntime(60000);
        QVERIFY(ask(bench.session, &S::reboot).first.ok);
        QVERIFY(bench.reaches(State::Restarting));
        QCOMPARE(bench.stateSpy.count(), changes + 1);
    }
};

QTEST_GUILESS_MAIN(TestDeviceSession)
#include "tst_device_session.moc"
