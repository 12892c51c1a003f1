// The USB device simulator, driven from a plain peer on the slave side of its pseudo-terminal:
// raw termios, frames written with encodeFrame, replies read back through the decoder.

#include "links/admin_reassembler.h"
#include "links/frame_codec.h"
#include "links/frame_decoder.h"
#include "live/live_data.h"
#include "sim/admin_responder.h"
#include "sim/game.h"
#include "sim/usb_device.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

using namespace vantorelle;
using vantorelle::sim::UsbDevice;

namespace {

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QJsonObject parsed(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

QJsonObject request(int id, const QString& method, const QJsonObject& params = {})
{
    return {{"id", id}, {"method", method}, {"params", params}};
}

// The computer's end of the line, as bare as it gets.
class Peer
{
public:
    ~Peer()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    bool open(const QString& path)
    {
        m_fd = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (m_fd < 0)
            return false;
        termios tio = {};
        tcgetattr(m_fd, &tio);
        cfmakeraw(&tio);
        tcsetattr(m_fd, TCSANOW, &tio);
        tcflush(m_fd, TCIOFLUSH); // what the device said before anyone listened
        return true;
    }

    void write(const QByteArray& bytes)
    {
        for (qsizetype offset = 0; offset < bytes.size();) {
            const ssize_t n =
                ::write(m_fd, bytes.constData() + offset, size_t(bytes.size() - offset));
            if (n > 0)
                offset += n;
            else if (errno == EAGAIN)
                QTest::qWait(1);
            else
                QFAIL("write to the port failed");
        }
    }
    void send(FrameType type, const QByteArray& payload) { write(encodeFrame(type, payload)); }
    void sendControl(const QJsonObject& message) { send(FrameType::Control, compact(message)); }
    void sendAdmin(const QJsonObject& request)
    {
        for (const QByteArray& frame : encodeAdminRequest(compact(request)))
            write(frame);
    }

    // Reads what is there; false once the line has hung up.
    bool pump()
    {
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
            if (n > 0) {
                m_frames.append(m_decoder.decodeFrames(QByteArrayView(buffer, n)));
                continue;
            }
            if (n < 0 && errno == EAGAIN)
                return true;
            m_hungUp = true;
            return false;
        }
    }

    QList<Frame> framesOf(FrameType type)
    {
        pump();
        QList<Frame> found;
        for (const Frame& frame : std::as_const(m_frames)) {
            if (frame.type == type)
                found.append(frame);
        }
        return found;
    }

    // The next complete admin reply, reassembled from type-4 frames.
    std::optional<QJsonObject> waitForAdminReply(int timeoutMs = 3000)
    {
        std::optional<QJsonObject> reply;
        (void)QTest::qWaitFor(
            [&] {
                for (const Frame& frame : takeFrames(FrameType::Admin)) {
                    ++m_adminFrames;
                    if (const auto whole = m_reassembler.add(frame.payload))
                        reply = parsed(*whole);
                }
                return reply.has_value();
            },
            timeoutMs);
        return reply;
    }

    std::optional<QJsonObject> waitForControl(const QString& kind, int timeoutMs = 3000)
    {
        std::optional<QJsonObject> found;
        (void)QTest::qWaitFor(
            [&] {
                for (const Frame& frame : takeFrames(FrameType::Control)) {
                    const QJsonObject message = parsed(frame.payload);
                    if (!found && message.value("t").toString() == kind)
                        found = message;
                }
                return found.has_value();
            },
            timeoutMs);
        return found;
    }

    QList<Frame> takeFrames(FrameType type)
    {
        const QList<Frame> found = framesOf(type);
        m_frames.removeIf([type](const Frame& frame) { return frame.type == type; });
        return found;
    }

    bool hungUp() const { return m_hungUp; }
    int adminFrames() const { return m_adminFrames; }

private:
    int m_fd = -1;
    FrameDecoder m_decoder;
    AdminReassembler m_reassembler;
    QList<Frame> m_frames;
    bool m_hungUp = false;
    int m_adminFrames = 0;
};

} // namespace

class tst_SimUsbDevice : public QObject
{
    Q_OBJECT

private:
    // A started device with a peer on its port.
    bool connectPeer(UsbDevice& device, Peer& peer)
    {
        return device.start() && peer.open(device.portPath());
    }

private Q_SLOTS:
    void helloAnsweredByDevice()
    {
        UsbDevice device;
        device.setHelloInfo({{"name", "Rink Board"},
                             {"tunnel", QJsonObject{{"host", "relay.example"}, {"port", 443}}}});
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        QSignalSpy controls(&device, &UsbDevice::controlReceived);

        peer.sendControl({{"t", "hello"}, {"streams", QJsonObject()}});
        const auto hello = peer.waitForControl("hello");
        QVERIFY(hello);
        QCOMPARE(hello->value("name").toString(), "Rink Board");
        QCOMPARE(hello->value("tunnel")["port"].toInt(), 443);
        QVERIFY(!hello->value("fw_version").toString().isEmpty());
        QCOMPARE(device.helloCount(), 1);
        QCOMPARE(controls.size(), 1);
        QCOMPARE(controls.first().first().toJsonObject().value("t").toString(), "hello");
    }

    void helloAnsweredByReceiver()
    {
        UsbDevice device;
        device.setRole(UsbDevice::Role::Receiver);
        Peer peer;
        QVERIFY(connectPeer(device, peer));

        peer.sendControl({{"t", "hello"}, {"streams", QJsonObject()}});
        const auto status = peer.waitForControl("rx_status");
        QVERIFY(status);
        QVERIFY(status->contains("channel"));
    }

    void silentWhenTold()
    {
        UsbDevice device;
        device.setAnswersHello(false);
        Peer peer;
        QVERIFY(connectPeer(device, peer));

        peer.sendControl({{"t", "hello"}, {"streams", QJsonObject()}});
        QTRY_COMPARE(device.helloCount(), 1);
        QTest::qWait(200);
        QVERIFY(peer.framesOf(FrameType::Control).isEmpty());
    }

    void gameEnvelopesArriveAsLiveFrames()
    {
        UsbDevice device;
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        device.startGame(10);

        QTRY_VERIFY(peer.framesOf(FrameType::Live).size() >= 3);
        LiveData model;
        qint64 lastSeq = -1;
        for (const Frame& frame : peer.framesOf(FrameType::Live)) {
            const QJsonDocument document = QJsonDocument::fromJson(frame.payload);
            QVERIFY(document.isObject());
            const QJsonObject envelope = document.object();
            QCOMPARE(envelope.value("type").toString(), "state");
            QCOMPARE(envelope.value("sport").toString(), "hockey");
            QVERIFY(envelope.value("fields").isObject());
            QVERIFY(envelope.value("ts_ms").toDouble() > 0);
            QVERIFY(envelope.value("seq").toInteger() > lastSeq);
            lastSeq = envelope.value("seq").toInteger();
            QVERIFY(model.apply(envelope));
        }
        QVERIFY(!model.value("clock").isEmpty());
        QVERIFY(!model.value("home_score").isEmpty());
    }

    void login_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QString>("code");
        QTest::newRow("right") << "s3cret-pw" << true << "";
        QTest::newRow("wrong") << "guess" << false << "bad_password";
        QTest::newRow("empty") << "" << false << "bad_password";
    }

    void login()
    {
        QFETCH(QString, password);
        QFETCH(bool, ok);
        QFETCH(QString, code);
        UsbDevice device;
        device.setPassword("s3cret-pw");
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        QSignalSpy requests(&device, &UsbDevice::adminRequest);

        peer.sendAdmin(request(7, "login", {{"password", password}}));
        const auto reply = peer.waitForAdminReply();
        QVERIFY(reply);
        QCOMPARE(reply->value("id").toInt(), 7);
        QCOMPARE(reply->value("ok").toBool(), ok);
        QCOMPARE(reply->value("error")["code"].toString(), code);
        if (ok)
            QVERIFY(reply->value("result")["must_change_password"].isBool());
        QCOMPARE(requests.size(), 1);
        QCOMPARE(requests.first().first().toJsonObject().value("method").toString(), "login");
    }

    void busyOnDemand()
    {
        UsbDevice device;
        device.setBusyReplies(2);
        Peer peer;
        QVERIFY(connectPeer(device, peer));

        QStringList codes;
        for (int id = 1; id <= 3; ++id) {
            peer.sendAdmin(request(id, "getStatus"));
            const auto reply = peer.waitForAdminReply();
            QVERIFY(reply);
            QCOMPARE(reply->value("id").toInt(), id);
            codes.append(reply->value("ok").toBool() ? "ok"
                                                     : reply->value("error")["code"].toString());
        }
        QCOMPARE(codes, QStringList({"busy", "busy", "ok"}));
    }

    void unknownMethodIsNotFound()
    {
        UsbDevice device;
        Peer peer;
        QVERIFY(connectPeer(device, peer));

        peer.sendAdmin(request(3, "makeCoffee"));
        const auto reply = peer.waitForAdminReply();
        QVERIFY(reply);
        QCOMPARE(reply->value("ok").toBool(), false);
        QCOMPARE(reply->value("error")["code"].toString(), "method_not_found");
    }

    void fragmentedRequestIsReassembled()
    {
        UsbDevice device;
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        QSignalSpy requests(&device, &UsbDevice::adminRequest);

        const QString note(5000, QLatin1Char('n'));
        const QJsonObject big = request(11, "setSettings", {{"note", note}});
        QCOMPARE(encodeAdminRequest(compact(big)).size(), 3);
        peer.sendAdmin(big);

        const auto reply = peer.waitForAdminReply();
        QVERIFY(reply);
        QCOMPARE(reply->value("ok").toBool(), true);
        QCOMPARE(requests.size(), 1);
        QCOMPARE(requests.first().first().toJsonObject(), big);
        QCOMPARE(device.admin()->settings().value("note").toString(), note);
    }

    void largeReplyIsFragmented()
    {
        UsbDevice device;
        QJsonArray rows;
        for (int i = 0; i < 200; ++i)
            rows.append(QStringLiteral("controller row number %1").arg(i));
        device.admin()->setResult("getControllerList", {{"controllers", rows}});
        Peer peer;
        QVERIFY(connectPeer(device, peer));

        peer.sendAdmin(request(5, "getControllerList"));
        const auto reply = peer.waitForAdminReply();
        QVERIFY(reply);
        QCOMPARE(reply->value("result")["controllers"].toArray(), rows);
        QVERIFY(compact(*reply).size() > kMaxFramePayload);
        QCOMPARE(peer.adminFrames(),
                 int((compact(*reply).size() + kAdminPieceSize - 1) / kAdminPieceSize));
    }

    void garbageAndBadCrcsAreIgnored()
    {
        UsbDevice device;
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        QSignalSpy frames(&device, &UsbDevice::frameReceived);

        const QByteArray hello = encodeFrame(FrameType::Control, R"({"t":"hello","streams":{}})");
        QByteArray corrupt = hello;
        corrupt[corrupt.size() - 1] = char(corrupt.back() ^ 0x5A);
        peer.write(QByteArray("\xff\x00VT\x09garbage\x00V", 14));
        peer.write(corrupt);
        peer.write("noise without a frame start");
        peer.write(hello);

        QVERIFY(peer.waitForControl("hello"));
        QCOMPARE(device.helloCount(), 1);
        QCOMPARE(frames.size(), 1);
    }

    void relayBytesAreReported()
    {
        UsbDevice device;
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        QSignalSpy relay(&device, &UsbDevice::relayReceived);

        peer.send(FrameType::CloudRelay, "GET / HTTP/1.1\r\n");
        QTRY_COMPARE(relay.size(), 1);
        QCOMPARE(relay.first().first().toByteArray(), "GET / HTTP/1.1\r\n");
    }

    void receiverAnswersSettings()
    {
        UsbDevice device;
        device.setRole(UsbDevice::Role::Receiver);
        Peer peer;
        QVERIFY(connectPeer(device, peer));

        peer.sendControl({{"t", "rx_set"}, {"generate_key", true}, {"channel", 11}});
        const auto set = peer.waitForControl("rx_set");
        QVERIFY(set);
        QVERIFY(set->value("ok").toBool());
        QVERIFY(!set->value("key").toString().isEmpty());
        QCOMPARE(set->value("key").toString(), device.receiverKey());
        QCOMPARE(device.receiverChannel(), 11);

        device.failNextReceiverRequest("Key rejected");
        peer.sendControl({{"t", "rx_set"}, {"key", "0000"}});
        const auto error = peer.waitForControl("rx_error");
        QVERIFY(error);
        QCOMPARE(error->value("error").toString(), "Key rejected");

        peer.sendControl({{"t", "rx_reboot"}});
        QVERIFY(peer.waitForControl("rx_reboot"));
    }

    void unplugMakesThePeersReadFail()
    {
        UsbDevice device;
        Peer peer;
        QVERIFY(connectPeer(device, peer));
        QVERIFY(peer.pump());

        device.unplug();
        QVERIFY(!device.isStarted());
        QTRY_VERIFY(!peer.pump());
        QVERIFY(peer.hungUp());
    }

    void everyCatalogueMethodAnswers_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QJsonObject>("params");
        const QJsonObject none;
        QTest::newRow("login") << "login" << QJsonObject{{"password", "admin"}};
        QTest::newRow("getStatus") << "getStatus" << none;
        QTest::newRow("networkTest") << "networkTest" << none;
        QTest::newRow("changePassword") << "changePassword"
                                        << QJsonObject{{"current_password", "admin"},
                                                       {"new_password", "longer-pw"},
                                                       {"confirm_password", "longer-pw"}};
        QTest::newRow("ensureApiToken") << "ensureApiToken" << none;
        QTest::newRow("getSettings") << "getSettings" << none;
        QTest::newRow("setSettings") << "setSettings" << QJsonObject{{"brightness", 40}};
        QTest::newRow("getControllerList") << "getControllerList" << none;
        QTest::newRow("getControllerConfig") << "getControllerConfig" << none;
        QTest::newRow("setControllerConfig") << "setControllerConfig"
                                             << QJsonObject{{"manufacturer", "Northgate"},
                                                            {"model", "MPX"},
                                                            {"sport", "basketball"},
                                                            {"input_type", "rs485"}};
        QTest::newRow("scanWifi") << "scanWifi" << none;
        QTest::newRow("configureWifi")
            << "configureWifi" << QJsonObject{{"ssid", "Arena-Staff"}, {"pass", "password1"}};
        QTest::newRow("getState") << "getState" << none;
        QTest::newRow("reboot") << "reboot" << none;
        QTest::newRow("otaCheck") << "otaCheck" << none;
        QTest::newRow("otaApply") << "otaApply" << none;
        QTest::newRow("otaProgress") << "otaProgress" << none;
        QTest::newRow("c6OtaStatus") << "c6OtaStatus" << none;
        QTest::newRow("c6OtaApply") << "c6OtaApply" << none;
        QTest::newRow("getMqttConfig") << "getMqttConfig" << none;
        QTest::newRow("setMqttConfig") << "setMqttConfig" << QJsonObject{{"host", "broker.local"}};
        QTest::newRow("getDeviceId") << "getDeviceId" << none;
        QTest::newRow("setDeviceId") << "setDeviceId" << QJsonObject{{"device_id", "VT-0100"}};
        QTest::newRow("provision") << "provision" << QJsonObject{{"token", "abc"}};
        QTest::newRow("blePasskey") << "blePasskey" << none;
        QTest::newRow("getEspNow") << "getEspNow" << none;
        QTest::newRow("setEspNow")
            << "setEspNow"
            << QJsonObject{
                   {"role", "tx"}, {"peer_mac", "24:6F:28:A1:B2:C3"}, {"generate_key", true}};
    }

    // The responder alone: it knows nothing of USB, so the network simulator can share it.
    void everyCatalogueMethodAnswers()
    {
        QFETCH(QString, method);
        QFETCH(QJsonObject, params);
        sim::Game game;
        sim::AdminResponder responder;
        responder.setGame(&game);

        const QJsonObject reply = responder.handle(request(1, method, params));
        QCOMPARE(reply.value("error")["message"].toString(), QString());
        QCOMPARE(reply.value("ok").toBool(), true);
        QVERIFY(reply.value("result").isObject());
    }

    void responderDetails()
    {
        sim::Game game;
        sim::AdminResponder responder;
        responder.setGame(&game);
        const auto call = [&](const QString& method, const QJsonObject& params = {}) {
            return QJsonValue(responder.handle(request(1, method, params)));
        };

        QCOMPARE(call("getState")["result"]["type"].toString(), "state");
        QCOMPARE(call("getEspNow")["result"]["espnow"]["role"].toString(), "off");
        const QJsonValue tx =
            call("setEspNow", {{"role", "tx"}, {"peer_mac", "aa"}, {"generate_key", true}});
        QVERIFY(!tx["result"]["key"].toString().isEmpty());
        QCOMPARE(call("scanWifi")["error"]["code"].toString(), "wifi_off");

        QCOMPARE(call("configureWifi", {{"ssid", "PressBox"}, {"pass", "short"}})["ok"].toBool(),
                 true);
        QCOMPARE(call("getStatus")["result"]["wifi_provision"]["state"].toString(), "reverted");

        responder.setRequireLogin(true);
        QCOMPARE(call("getStatus")["error"]["code"].toString(), "unauthorized");
        QVERIFY(call("login", {{"password", "admin"}})["ok"].toBool());
        QVERIFY(call("getStatus")["ok"].toBool());

        responder.failNext("getStatus", "rate_limited", "Slow down");
        QCOMPARE(call("getStatus")["error"]["code"].toString(), "rate_limited");
        QVERIFY(call("getStatus")["ok"].toBool());
        QCOMPARE(QJsonValue(parsed(responder.handle(QByteArray("not json"))))["error"]["code"]
                     .toString(),
                 "bad_request");
    }

    void gameRunsClockAndPeriods()
    {
        sim::Game game;
        game.setSeed(1);
        QSignalSpy envelopes(&game, &sim::Game::envelopeReady);
        QCOMPARE(game.fields().value("clock").toString(), "20:00");
        for (int i = 0; i < 20 * 60; ++i)
            game.tick();
        QCOMPARE(game.fields().value("clock").toString(), "0:00");
        QCOMPARE(game.period(), 1);
        game.tick();
        QCOMPARE(game.period(), 2);
        QCOMPARE(game.fields().value("clock").toString(), "20:00");
        QCOMPARE(envelopes.size(), 20 * 60 + 1);
        QCOMPARE(envelopes.last().first().toJsonObject().value("seq").toInteger(), game.seq());

        game.setSport(sim::Game::Sport::Basketball);
        QCOMPARE(game.fields().value("clock").toString(), "12:00");
        QVERIFY(game.fields().contains("shot_clock"));
        QCOMPARE(game.envelope().value("sport").toString(), "basketball");
    }
};

QTEST_GUILESS_MAIN(tst_SimUsbDevice)
#include "tst_sim_usb_device.moc"
