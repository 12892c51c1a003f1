#include "admin/rpc_transport.h"
#include "common/test_support.h"
#include "core/version.h"
#include "links/cloud_relay.h"
#include "links/serial_port.h"
#include "links/stream_relay.h"
#include "links/usb_link.h"
#include "sim/usb_device.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <optional>

using namespace vantorelle;
using sim::UsbDevice;

namespace {

UsbLinkSettings fastSettings()
{
    UsbLinkSettings settings;
    settings.helloIntervalMs = 50;
    settings.giveUpMs = 10000;
    settings.pingIntervalMs = 100;
    settings.pacingMs = 40;
    settings.receiverTimeoutMs = 2000;
    return settings;
}

QJsonObject tunnelTo(quint16 port)
{
    return {{QStringLiteral("host"), QStringLiteral("127.0.0.1")},
            {QStringLiteral("port"), int(port)}};
}

// Every type-3 kind and type-4 payload the device side received, in order.
struct DeviceLog
{
    explicit DeviceLog(UsbDevice& device)
    {
        QObject::connect(&device, &UsbDevice::controlReceived, [this](const QJsonObject& m) {
            kinds.append(m.value(QStringLiteral("t")).toString());
            controls.append(m);
        });
        QObject::connect(&device, &UsbDevice::frameReceived,
                         [this](FrameType type, const QByteArray& payload) {
                             if (type == FrameType::Admin)
                                 adminPayloads.append(payload);
                         });
        QObject::connect(&device, &UsbDevice::relayReceived, [this](const QByteArray& bytes) {
            relayFrames.append(bytes);
            relayArrivals.append(clock.elapsed());
        });
        clock.start();
    }
    qsizetype count(const QString& kind) const { return kinds.count(kind); }
    QByteArray relayBytes() const { return relayFrames.join(); }

    QStringList kinds;
    QList<QJsonObject> controls;
    QList<QByteArray> adminPayloads;
    QList<QByteArray> relayFrames;
    QList<qint64> relayArrivals;
    QElapsedTimer clock;
};

// A device on a pseudo-terminal and the link that opens it.
struct Bench
{
    explicit Bench(const UsbLinkSettings& settings = fastSettings())
    {
        started = device.start();
        link.emplace(device.portPath(), settings);
    }
    // Opens the link and waits for the device's answer.
    bool open()
    {
        QSignalSpy opened(&*link, &DeviceLink::opened);
        link->open();
        return opened.wait(5000) || opened.count() == 1;
    }

    UsbDevice device;
    DeviceLog log{device};
    // The device names a tunnel to `port` on this computer, and the link shares the connection.
    void shareThrough(quint16 port)
    {
        device.setHelloInfo({{"tunnel", tunnelTo(port)}});
        link->cloudRelay()->setShareConnection(true);
    }

    std::optional<UsbLink> link;
    bool started = false;
};

// Answers every connection by sending back what it reads.
class EchoServer : public QTcpServer
{
public:
    EchoServer()
    {
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    const QByteArray bytes = socket->readAll();
                    socket->write(bytes);
                });
            }
        });
    }
};

// A device whose hello names a tunnel to an echo server on this computer, shared by the link.
struct RelayBench : Bench
{
    explicit RelayBench(const UsbLinkSettings& settings = fastSettings()) : Bench(settings)
    {
        started = started && server.listen(QHostAddress::LocalHost, 0);
        shareThrough(server.serverPort());
    }
    EchoServer server;
};

QByteArray requestOfSize(qsizetype size)
{
    const QByteArray head = R"({"id":1,"method":"setWifi","params":{"pad":")";
    const QByteArray tail = R"("}})";
    return head + QByteArray(size - head.size() - tail.size(), 'p') + tail;
}

} // namespace

class TestUsbLink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Opening and liveness.
    void helloResentUntilAnswered();
    void silentPortGivesNoResponse();
    void openFailureCarriesThePortsSentence();
    void unplugging_data();
    void unplugging();
    void envelopesAreEmitted();

    // Admin transport.
    void adminRequestFraming_data();
    void adminRequestFraming();
    void fragmentedReplyIsReassembled();
    void adminRequestTooLarge();
    void adminSendWhenNotOpen();

    // Wireless receiver.
    void receiverAnswers_data();
    void receiverAnswers();
    void receiverRefusesWhatItCannotSend();
    void receiverTimeoutIgnoresLateAnswer();
    void receiverStatusAndReboot();

    // Relays.
    void cloudRelayRoundTripIsPaced();
    void relayQueueOverflowDropsQueue();
    void tunnelChangesFollowHellos();
    void streamDataIsDropped();
};

void TestUsbLink::helloResentUntilAnswered()
{
    Bench bench;
    QVERIFY(bench.started);
    bench.device.setAnswersHello(false);
    QSignalSpy opened(&*bench.link, &DeviceLink::opened);
    bench.link->open();
    QTRY_VERIFY(bench.device.helloCount() >= 3);
    QCOMPARE(opened.count(), 0);

    const QJsonObject hello = bench.log.controls.first();
    QCOMPARE(QJsonDocument(hello).toJson(QJsonDocument::Compact),
             QByteArray(R"({"client":"vantorelle-obs","streams":{},"t":"hello","version":")") +
                 pluginVersion().toUtf8() + "\"}");

    bench.device.setAnswersHello(true);
    QTRY_COMPARE(opened.count(), 1);
    QCOMPARE(opened.first().first().toJsonObject().value("name").toString(),
             QStringLiteral("Vantorelle 0042"));
    QVERIFY(bench.link->isOpened());
    const int hellosAtOpen = bench.device.helloCount();
    // Pings keep coming (every 100 ms) while hellos (every 50 ms) have stopped.
    const qsizetype pings = bench.log.count("ping");
    QTRY_VERIFY(bench.log.count("ping") >= pings + 3);
    QCOMPARE(bench.device.helloCount(), hellosAtOpen);
}

void TestUsbLink::silentPortGivesNoResponse()
{
    UsbLinkSettings settings = fastSettings();
    settings.helloIntervalMs = 20;
    settings.giveUpMs = 200;
    Bench bench(settings);
    QVERIFY(bench.started);
    bench.device.setAnswersHello(false);
    QSignalSpy failed(&*bench.link, &DeviceLink::failed);
    QElapsedTimer clock;
    clock.start();
    bench.link->open();
    QTRY_COMPARE(failed.count(), 1);
    QVERIFY(clock.elapsed() >= settings.giveUpMs);
    QCOMPARE(failed.first().at(0).toString(), QStringLiteral("no_response"));
    QCOMPARE(failed.first().at(1).toString(),
             QStringLiteral("This USB port did not answer like a Vantorelle device. Check the "
                            "cable and that the device has finished starting."));
    QVERIFY(bench.device.helloCount() >= 9);
    const int hellos = bench.device.helloCount();
    const qsizetype pings = bench.log.count("ping");
    QTRY_VERIFY(bench.log.count("ping") >= pings + 2);
    QCOMPARE(bench.device.helloCount(), hellos);
    QCOMPARE(failed.count(), 1);
}

void TestUsbLink::openFailureCarriesThePortsSentence()
{
    const QString path = QStringLiteral("/nonexistent/ttyVT0");
    QString expected;
    SerialPort probe(path);
    QVERIFY(!probe.open(&expected));
    QVERIFY(!expected.isEmpty());

    UsbLink link(path, fastSettings());
    QSignalSpy failed(&link, &DeviceLink::failed);
    link.open();
    QCOMPARE(failed.count(), 1);
    QCOMPARE(failed.first().at(0).toString(), QStringLiteral("open_failed"));
    QCOMPARE(failed.first().at(1).toString(), expected);
    QVERIFY(!link.adminTransport()->isOpen());
}

void TestUsbLink::unplugging_data()
{
    QTest::addColumn<bool>("closeFirst");
    QTest::newRow("unplugged while open") << false;
    QTest::newRow("closed, then unplugged") << true;
}

void TestUsbLink::unplugging()
{
    QFETCH(bool, closeFirst);
    RelayBench bench;
    QVERIFY(bench.started);
    QVERIFY(bench.open());
    QVERIFY(bench.link->cloudRelay()->isReady());
    QSignalSpy closed(&*bench.link, &DeviceLink::closed);
    QSignalSpy failed(&*bench.link, &DeviceLink::failed);

    if (closeFirst)
        bench.link->close();
    bench.device.unplug();
    if (!closeFirst) {
        QTRY_COMPARE(closed.count(), 1);
        QCOMPARE(closed.first().first().toString(),
                 QStringLiteral("The USB device was unplugged or stopped responding."));
    }
    QVERIFY(!bench.link->adminTransport()->isOpen());
    QVERIFY(!bench.link->isOpened());
    QVERIFY(!bench.link->cloudRelay()->isReady());
    QTest::qWait(300); // several poll, hello and ping intervals: nothing more may come
    QCOMPARE(closed.count(), closeFirst ? 0 : 1);
    QCOMPARE(failed.count(), 0);
}

void TestUsbLink::envelopesAreEmitted()
{
    Bench bench;
    QVERIFY(bench.started);
    QVERIFY(bench.open());
    QSignalSpy envelopes(&*bench.link, &DeviceLink::envelope);
    bench.device.sendEnvelope({{"home_score", "3"}});
    bench.device.sendFrame(FrameType::Live, "[1,2]"); // not an object: dropped
    bench.device.sendRaw(QByteArrayLiteral("garbage\x00V"));
    bench.device.sendEnvelope({{"home_score", "4"}});
    QTRY_COMPARE(envelopes.count(), 2);
    QCOMPARE(envelopes.at(0).first().toJsonObject().value("home_score").toString(), "3");
    QCOMPARE(envelopes.at(1).first().toJsonObject().value("home_score").toString(), "4");
}

void TestUsbLink::adminRequestFraming_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<int>>("payloadSizes");
    QTest::newRow("one whole frame") << 2048 << QList<int>{2048};
    QTest::newRow("two fragments") << 2049 << QList<int>{2048, 7};
    // The device side reads on this thread, so a request must fit in the terminal's buffer.
    QTest::newRow("five fragments") << 10000 << QList<int>{2048, 2048, 2048, 2048, 3 + 1820};
}

void TestUsbLink::adminRequestFraming()
{
    QFETCH(int, size);
    QFETCH(QList<int>, payloadSizes);
    Bench bench;
    QVERIFY(bench.started);
    bench.device.setAnswersAdmin(false);
    QVERIFY(bench.open());
    QSignalSpy requests(&bench.device, &UsbDevice::adminRequest);
    QSignalSpy sendFailed(bench.link->adminTransport(), &RpcTransport::sendFailed);

    bench.link->adminTransport()->send(requestOfSize(size));
    QTRY_COMPARE(requests.count(), 1);
    QCOMPARE(requests.first().first().toJsonObject().value("method").toString(), "setWifi");
    QList<int> sizes;
    for (const QByteArray& payload : bench.log.adminPayloads)
        sizes.append(int(payload.size()));
    QCOMPARE(sizes, payloadSizes);
    if (payloadSizes.size() > 1) {
        const QByteArray second = bench.log.adminPayloads.at(1);
        QCOMPARE(quint8(second[0]) << 8 | quint8(second[1]), size); // total, big-endian
        QCOMPARE(quint8(second[2]), 1);
    }
    QCOMPARE(sendFailed.count(), 0);
}

void TestUsbLink::fragmentedReplyIsReassembled()
{
    Bench bench;
    QVERIFY(bench.started);
    QVERIFY(bench.open());
    QSignalSpy messages(bench.link->adminTransport(), &RpcTransport::message);
    const QByteArray reply = requestOfSize(5000);
    bench.device.sendAdminReply(reply);
    QTRY_COMPARE(messages.count(), 1);
    QCOMPARE(messages.first().first().toByteArray(), reply);
}

void TestUsbLink::adminRequestTooLarge()
{
    Bench bench;
    QVERIFY(bench.started);
    QVERIFY(bench.open());
    QSignalSpy sendFailed(bench.link->adminTransport(), &RpcTransport::sendFailed);
    bench.link->adminTransport()->send(requestOfSize(65536));
    QCOMPARE(sendFailed.count(), 1);
    QCOMPARE(sendFailed.first().at(0).toString(), QStringLiteral("request_too_large"));
    QCOMPARE(sendFailed.first().at(1).toString(),
             QStringLiteral("That request is too large for the device"));
    // A small request sent after it is the first thing the device sees.
    bench.link->adminTransport()->send(requestOfSize(100));
    QTRY_COMPARE(bench.log.adminPayloads.size(), 1);
    QCOMPARE(bench.log.adminPayloads.first().size(), 100);
}

void TestUsbLink::adminSendWhenNotOpen()
{
    Bench bench;
    QVERIFY(bench.started);
    RpcTransport* transport = bench.link->adminTransport();
    QVERIFY(!transport->isOpen());
    QSignalSpy sendFailed(transport, &RpcTransport::sendFailed);
    transport->send(requestOfSize(100));
    QCOMPARE(sendFailed.count(), 1);
    QCOMPARE(sendFailed.first().at(0).toString(), QStringLiteral("disconnected"));
    QCOMPARE(sendFailed.first().at(1).toString(),
             QStringLiteral("The USB device is not connected"));
    QVERIFY(bench.open());
    QVERIFY(transport->isOpen());
}

struct ReceiverOutcome
{
    int calls = 0;
    bool ok = false;
    QString key;
    QString error;

    UsbLink::ReceiverDone callback()
    {
        return [this](bool success, const QString& k, const QString& e) {
            ++calls;
            ok = success;
            key = k;
            error = e;
        };
    }
};

// A receiver that lets the test answer its requests.
struct ReceiverBench : Bench
{
    ReceiverBench()
    {
        device.setRole(UsbDevice::Role::Receiver);
        device.setAnswersReceiver(false);
    }
};

void TestUsbLink::receiverAnswers_data()
{
    QTest::addColumn<QJsonObject>("answer");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("error");
    const QString refused = QStringLiteral("The receiver refused the settings");
    QTest::newRow("rx_set without ok")
        << QJsonObject{{"t", "rx_set"}, {"key", "K-77"}} << true << "K-77"
        << "";
    QTest::newRow("rx_set refused")
        << QJsonObject{{"t", "rx_set"}, {"ok", false}} << false << "" << refused;
    QTest::newRow("rx_set refused with text")
        << QJsonObject{{"t", "rx_set"}, {"ok", false}, {"error", "Bad key"}} << false << ""
        << "Bad key";
    QTest::newRow("rx_error with ok true")
        << QJsonObject{{"t", "rx_error"}, {"ok", true}, {"key", "K"}} << false << "" << refused;
    QTest::newRow("rx_error with text")
        << QJsonObject{{"t", "rx_error"}, {"error", "Busy radio"}} << false << ""
        << "Busy radio";
    QTest::newRow("rx_reboot") << QJsonObject{{"t", "rx_reboot"}, {"ok", true}} << true << ""
                               << "";
}

void TestUsbLink::receiverAnswers()
{
    QFETCH(QJsonObject, answer);
    ReceiverBench bench;
    QVERIFY(bench.started);
    QSignalSpy opened(&*bench.link, &DeviceLink::opened);
    QVERIFY(bench.open());
    QVERIFY(opened.first().first().toJsonObject().value("receiver").toBool());
    QVERIFY(bench.link->isReceiver());

    ReceiverOutcome outcome;
    bench.link->setReceiver(QStringLiteral("  K-77 \n"), false, 3, outcome.callback());
    QTRY_COMPARE(bench.log.count("rx_set"), 1);
    const QJsonObject request = bench.log.controls.last();
    QCOMPARE(request.value("key").toString(), QStringLiteral("K-77"));
    QCOMPARE(request.value("channel").toInt(), 3);
    QVERIFY(!request.contains("generate_key"));
    QCOMPARE(outcome.calls, 0);

    bench.device.sendControl(answer);
    QTRY_COMPARE(outcome.calls, 1);
    QTEST(outcome.ok, "ok");
    QTEST(outcome.key, "key");
    QTEST(outcome.error, "error");
}

void TestUsbLink::receiverRefusesWhatItCannotSend()
{
    ReceiverBench bench;
    QVERIFY(bench.started);
    QVERIFY(bench.open());
    ReceiverOutcome empty;
    bench.link->setReceiver(QStringLiteral("   "), false, std::nullopt, empty.callback());
    QCOMPARE(empty.calls, 1);
    QVERIFY(!empty.ok);
    QCOMPARE(empty.error, QStringLiteral("Give a key, ask for a new key, or choose a channel"));

    ReceiverOutcome first;
    ReceiverOutcome second;
    bench.link->setReceiver(QStringLiteral("ignored"), true, std::nullopt, first.callback());
    bench.link->rebootReceiver(second.callback());
    QCOMPARE(second.calls, 1);
    QVERIFY(!second.ok);
    QCOMPARE(second.error, QStringLiteral("Another receiver request is still in progress"));
    QTRY_COMPARE(bench.log.count("rx_set"), 1);
    QVERIFY(bench.log.controls.last().value("generate_key").toBool());
    QVERIFY(!bench.log.controls.last().contains("key"));
    QCOMPARE(bench.log.count("rx_reboot"), 0);
    QCOMPARE(first.calls, 0);
}

void TestUsbLink::receiverTimeoutIgnoresLateAnswer()
{
    UsbLinkSettings settings = fastSettings();
    settings.receiverTimeoutMs = 150;
    Bench bench(settings);
    bench.device.setRole(UsbDevice::Role::Receiver);
    bench.device.setAnswersReceiver(false);
    QVERIFY(bench.started);
    QVERIFY(bench.open());

    ReceiverOutcome outcome;
    bench.link->setReceiver({}, false, 5, outcome.callback());
    QTRY_COMPARE(outcome.calls, 1);
    QVERIFY(!outcome.ok);
    QCOMPARE(outcome.error, QStringLiteral("The receiver did not answer"));

    bench.device.sendControl({{"t", "rx_set"}, {"ok", true}});
    bench.device.sendReceiverStatus(); // a marker that arrives after the late answer
    QSignalSpy updated(&*bench.link, &UsbLink::receiverUpdated);
    QTRY_COMPARE(updated.count(), 1);
    QCOMPARE(outcome.calls, 1);

    // The slot is free again: the receiver now answers for itself.
    bench.device.setAnswersReceiver(true);
    ReceiverOutcome next;
    bench.link->setReceiver({}, true, std::nullopt, next.callback());
    QTRY_COMPARE(next.calls, 1);
    QVERIFY2(next.ok, qPrintable(next.error));
    QCOMPARE(next.key, bench.device.receiverKey());
    QVERIFY(!next.key.isEmpty());
}

void TestUsbLink::receiverStatusAndReboot()
{
    Bench bench;
    bench.device.setRole(UsbDevice::Role::Receiver);
    QVERIFY(bench.started);
    QVERIFY(bench.open());
    QSignalSpy updated(&*bench.link, &UsbLink::receiverUpdated);
    ReceiverOutcome status;
    bench.link->requestReceiverStatus(status.callback());
    QTRY_COMPARE(status.calls, 1);
    QVERIFY(status.ok);
    QCOMPARE(updated.count(), 1);
    QCOMPARE(bench.log.count("rx_status"), 1);

    ReceiverOutcome reboot;
    bench.link->rebootReceiver(reboot.callback());
    QTRY_COMPARE(reboot.calls, 1);
    QVERIFY(reboot.ok);
    QCOMPARE(bench.log.count("rx_reboot"), 1);
}

void TestUsbLink::cloudRelayRoundTripIsPaced()
{
    UsbLinkSettings settings = fastSettings();
    settings.pacingMs = 60;
    RelayBench bench(settings);
    QVERIFY(bench.started);
    bench.device.setPollInterval(1);
    CloudRelay* relay = bench.link->cloudRelay();
    QVERIFY(relay->isWaiting());
    QVERIFY(bench.open());
    QVERIFY(relay->isReady());
    QVERIFY(!relay->isConnected());

    QByteArray sent;
    for (int i = 0; i < 6; ++i) {
        const QByteArray chunk = QByteArray(500, char('a' + i));
        bench.device.sendFrame(FrameType::CloudRelay, chunk);
        sent += chunk;
    }
    QTRY_COMPARE_WITH_TIMEOUT(bench.log.relayBytes(), sent, 10000);
    QVERIFY(relay->isConnected());
    QVERIFY(relay->lastError().isEmpty());

    const QList<QByteArray>& frames = bench.log.relayFrames;
    QVERIFY(frames.size() >= 6); // 3000 bytes in pieces of at most 512
    for (const QByteArray& frame : frames)
        QVERIFY(frame.size() <= UsbLink::RelayPieceBytes);
    // Arrival times carry the device's read delay (a 1 ms poll on a shared event loop) on top
    // of the link's spacing, hence the tolerance.
    const QList<qint64>& at = bench.log.relayArrivals;
    for (qsizetype i = 1; i < at.size(); ++i)
        QVERIFY2(at[i] - at[i - 1] >= settings.pacingMs - 10,
                 qPrintable(QStringLiteral("frames %1 ms apart").arg(at[i] - at[i - 1])));
    QVERIFY(at.last() - at.first() >= (at.size() - 1) * settings.pacingMs - 10);

    // A send that follows an emptied queue still waits out the interval.
    bench.log.relayFrames.clear();
    bench.log.relayArrivals.clear();
    bench.link->sendRelay("one");
    bench.link->sendRelay("two");
    QTRY_COMPARE(bench.log.relayFrames, (QList<QByteArray>{"one", "two"}));
    QVERIFY(at[1] - at[0] >= settings.pacingMs - 10);
}

void TestUsbLink::relayQueueOverflowDropsQueue()
{
    RelayBench bench;
    QVERIFY(bench.started);
    QVERIFY(bench.open());

    // 1024 frames fit: the first goes out at once and the relay keeps its tunnel.
    bench.link->sendRelay(QByteArray(UsbLink::RelayQueueLimit * 512, 'x'));
    QTRY_VERIFY(!bench.log.relayFrames.isEmpty());
    QCOMPARE(bench.log.relayFrames.first(), QByteArray(512, 'x'));
    QVERIFY(bench.link->cloudRelay()->isReady());

    // One more piece than the queue holds drops everything queued.
    bench.link->sendRelay(QByteArray(UsbLink::RelayQueueLimit * 512, 'y'));
    QVERIFY(!bench.link->cloudRelay()->isReady());
    const qsizetype before = bench.log.relayFrames.size();
    bench.link->sendRelay("after the overflow");
    QTRY_COMPARE(bench.log.relayFrames.size(), before + 1);
    QCOMPARE(bench.log.relayFrames.last(), QByteArray("after the overflow"));
}

void TestUsbLink::tunnelChangesFollowHellos()
{
    Bench bench;
    QVERIFY(bench.started);
    const QJsonObject tunnel = tunnelTo(4000);
    bench.device.setHelloInfo({{"tunnel", tunnel}});
    QSignalSpy changed(&*bench.link, &UsbLink::tunnelChanged);
    CloudRelay* relay = bench.link->cloudRelay();
    relay->setShareConnection(true);
    QVERIFY(bench.open());
    QCOMPARE(changed.count(), 1);
    QCOMPARE(bench.link->tunnel(), tunnel);
    QCOMPARE(relay->tunnelHost(), QStringLiteral("127.0.0.1"));
    QCOMPARE(relay->tunnelPort(), 4000);

    QSignalSpy updates(&*bench.link, &DeviceLink::opened);
    bench.device.sendControl({{"t", "hello"}, {"name", "Renamed"}, {"tunnel", tunnel}});
    QTRY_COMPARE(bench.link->deviceInfo().value("name").toString(), QStringLiteral("Renamed"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(updates.count(), 0); // already opened

    bench.device.sendControl({{"t", "hello"}, {"name", "No tunnel"}});
    QTRY_COMPARE(changed.count(), 2);
    QVERIFY(bench.link->tunnel().isEmpty());
    QVERIFY(!relay->isReady());
    QVERIFY(relay->isWaiting());
}

void TestUsbLink::streamDataIsDropped()
{
    Bench bench;
    QVERIFY(bench.started);
    const QJsonObject streams{{"camera", QJsonObject{{"port", 5000}}}};
    bench.device.setHelloInfo({{"streams", streams}});
    QVERIFY(bench.open());
    QCOMPARE(bench.link->streamRelay()->streams(), streams);
    bench.device.sendFrame(FrameType::StreamRelay, "abcd");
    bench.device.sendEnvelope({{"marker", "1"}});
    QSignalSpy envelopes(&*bench.link, &DeviceLink::envelope);
    QTRY_COMPARE(envelopes.count(), 1);
    QCOMPARE(bench.link->streamRelay()->droppedBytes(), 4);
    bench.link->close();
    QVERIFY(bench.link->streamRelay()->streams().isEmpty());
}

QTEST_GUILESS_MAIN(TestUsbLink)
#include "tst_usb_link.moc"
