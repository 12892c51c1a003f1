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
};

QTEST_GUILESS_MAIN(tst_SimUsbDevice)
#include "tst_sim_usb_device.moc"
