#include "cloud_relay.h"
#include "common/pty_pair.h"
#include "rpc_transport.h"
#include "sim/usb_device.h"
#include "stream_relay.h"
#include "usb_link.h"
#include "version.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

using namespace vantorelle;
using namespace Qt::StringLiterals;
using sim::UsbDevice;

namespace {

constexpr auto hex = &QByteArray::fromHex;

// Records each completion of a receiver request in `list`, as "ok|key|error".
UsbLink::ReceiverDone into(QStringList& list)
{
    return [&list](bool ok, const QString& key, const QString& error) {
        list.append(QStringList{ok ? "ok" : "failed", key, error}.join('|'));
    };
}

// A simulated device on a pseudo-terminal, the link that opens it, and what the device got.
// Intervals: hello 50 ms, give-up 10 s, ping 100 ms, pacing 40 ms, receiver 2 s.
struct Bench
{
    explicit Bench(UsbLinkSettings settings = {50, 10000, 100, 40, 2000},
                   UsbDevice::Role role = UsbDevice::Role::Device)
    {
        device.setRole(role);
        started = device.start();
        link.emplace(device.portPath(), settings);
        QObject::connect(&device, &UsbDevice::controlReceived, [this](const QJsonObject& m) {
            kinds.append(m.value("t").toString());
            if (kinds.last() != "ping")
                lastRequest = m;
        });
        QObject::connect(&device, &UsbDevice::relayReceived, [this](const QByteArray& bytes) {
            relay.append(bytes);
            arrivals.append(clock.elapsed());
        });
        clock.start();
        // The tunnel's far end answers by sending back what it reads.
        QObject::connect(&echo, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = echo.nextPendingConnection())
                QObject::connect(socket, &QTcpSocket::readyRead,
                                 [socket] { socket->write(socket->readAll()); });
        });
        echo.listen(QHostAddress::LocalHost, 0);
    }
    bool open()
    {
        QSignalSpy opened(&*link, &DeviceLink::opened);
        link->open();
        return started && (opened.count() == 1 || opened.wait(5000));
    }
    qsizetype pingsSinceHello() const
    {
        return kinds.sliced(kinds.lastIndexOf("hello") + 1).count("ping");
    }
    // The device names a tunnel to an echo server here, and the link shares the connection.
    void shareThroughEcho()
    {
        device.setHelloInfo(
            {{"tunnel", QJsonObject{{"host", "127.0.0.1"}, {"port", echo.serverPort()}}}});
        link->cloudRelay()->setShareConnection(true);
    }
    UsbDevice device;
    std::optional<UsbLink> link;
    bool started = false;
    QStringList kinds;       // of the control messages the device received
    QJsonObject lastRequest; // the last control message other than a ping
    QList<QByteArray> relay;
    QList<qint64> arrivals;
    QElapsedTimer clock;
    QTcpServer echo;
};

} // namespace

class TestUsbLink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A bare terminal plays the device: what the link writes and reads, byte for byte.
    void wireBytes()
    {
        test::PtyPair device;
        UsbLink link(device.portPath(), {.helloIntervalMs = 10000, .pingIntervalMs = 50});
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy envelopes(&link, &DeviceLink::envelope);
        RpcTransport* admin = link.adminTransport();
        QSignalSpy failures(admin, &RpcTransport::sendFailed);
        QSignalSpy replies(admin, &RpcTransport::message);
        admin->send("{}");
        QCOMPARE(failures.takeFirst(),
                 (QVariantList{"disconnected", "The USB device is not connected"}));
        link.open();
        const QByteArray hello =
            "{\"client\":\"vantorelle-obs\",\"streams\":{},\"t\":\"hello\",\"version\":\"" +
            pluginVersion().toUtf8() + "\"}";
        QVERIFY(device.waitForReceived(hello.size() + 8));
        QCOMPARE(device.received().first(hello.size() + 6),
                 hex("00565403") + char(hello.size()) + '\0' + hello);
        // The hello answer, garbage, a bad CRC, a live frame that is not an object, a good one.
        const QByteArray live = hex("0056540112007b22686f6d655f73636f7265223a2233227d50a2");
        QVERIFY(device.send(hex("005654030d007b2274223a2268656c6c6f227deec7") + "junk\0V"_ba +
                            QByteArray(live).replace('3', '9') + hex("0056540105005b312c325d94a9") +
                            live));
        QTRY_VERIFY(!envelopes.isEmpty());
        QCOMPARE(envelopes.count(), 1);
        QCOMPARE(envelopes.first().first().toJsonObject(), (QJsonObject{{"home_score", "3"}}));
        QCOMPARE(opened.count(), 1);
        QCOMPARE(opened.first().first().toJsonObject(), (QJsonObject{{"t", "hello"}}));
        // Written in one go, so that no ping comes between; relay frames are 40 ms apart.
        device.takeReceived();
        link.sendRelay("one");
        link.sendRelay("two");
        link.setReceiver("  K-77 \n", false, 3, [](bool, const QString&, const QString&) {});
        const QByteArray written =
            hex("0056540203006f6e65e06f" // relay "one"
                "0056540327007b226368616e6e656c223a332c226b6579223a224b2d3737222c2274223a2272785f73"
                "6574227d4249"); // {"channel":3,"key":"K-77","t":"rx_set"}
        QVERIFY(device.waitForReceived(written.size()));
        QVERIFY(device.received().startsWith(written));
        QTRY_VERIFY(device.received().contains(hex("00565402030074776fd3c4"))); // relay "two"
        QTRY_VERIFY(device.received().contains(hex("005654030c007b2274223a2270696e67227ddc00")));
        // Too large for the device at all; past one frame, in fragments; a fragmented reply.
        device.takeReceived();
        admin->send(QByteArray(65536, 'q'));
        QCOMPARE(failures.takeFirst(),
                 (QVariantList{"request_too_large", "That request is too large for the device"}));
        admin->send('{' + QByteArray(2048, 'a'));
        QVERIFY(device.waitForReceived(2056 + 15));
        QCOMPARE(device.received().first(9), hex("005654040008080100"));
        QCOMPARE(device.received().sliced(2056, 15), hex("00565404070008010161616161334a"));
        QVERIFY(device.send(hex("0056540405000005006162b6d90056540406000005016364652562")));
        QTRY_COMPARE(replies.count(), 1);
        QCOMPARE(replies.first().first().toByteArray(), "abcde");
        QVERIFY(failures.isEmpty());
        // A slot that closes the link stops the rest of what was read with it.
        connect(&link, &DeviceLink::envelope, &link, [&] { link.close(); });
        QVERIFY(device.send(live + live));
        QTRY_COMPARE(envelopes.count(), 2);
        QVERIFY(!link.adminTransport()->isOpen());
    }
    void givesUpOnASilentPort()
    {
        Bench bench({50, 200, 100, 40, 2000});
        bench.device.setAnswersHello(false);
        QSignalSpy failed(&*bench.link, &DeviceLink::failed);
        QElapsedTimer clock;
        clock.start();
        bench.link->open();
        QTRY_COMPARE(failed.count(), 1);
        QVERIFY(clock.elapsed() >= 200);
        QCOMPARE(failed.first(),
                 (QVariantList{"no_response", "This USB port did not answer like a Vantorelle "
                                              "device. Check the cable and that the device has "
                                              "finished starting."}));
        QTRY_VERIFY(bench.device.helloCount() >= 4);
        QTRY_VERIFY(bench.pingsSinceHello() >= 2); // hellos stopped, pings did not
        QCOMPARE(failed.count(), 1);
        UsbLink missing("/nonexistent/ttyVT0");
        QSignalSpy openFailed(&missing, &DeviceLink::failed);
        missing.open();
        QCOMPARE(openFailed.first(),
                 (QVariantList{"open_failed", "Could not open the USB port (error 2)."}));
    }
    void receiverAnswers_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("outcome");
        const QString refused = "failed||The receiver refused the settings";
        QTest::newRow("set") << R"({"t":"rx_set","key":"K-77"})"_ba << QString("ok|K-77|");
        QTest::newRow("set, not ok") << R"({"t":"rx_set","ok":false})"_ba << refused;
        QTest::newRow("set, text")
            << R"({"t":"rx_set","ok":false,"error":"Bad"})"_ba << QString("failed||Bad");
        QTest::newRow("error, ok") << R"({"t":"rx_error","ok":true,"key":"K"})"_ba << refused;
        QTest::newRow("error, text")
            << R"({"t":"rx_error","error":"Busy"})"_ba << QString("failed||Busy");
        QTest::newRow("reboot") << R"({"t":"rx_reboot","ok":true})"_ba << QString("ok||");
    }
    void receiverAnswers()
    {
        QFETCH(QByteArray, answer);
        Bench bench({50, 10000, 100, 40, 2000}, UsbDevice::Role::Receiver);
        bench.device.setAnswersReceiver(false);
        QVERIFY(bench.open());
        QStringList done;
        bench.link->setReceiver("K-77", false, 3, into(done));
        QVERIFY(done.isEmpty());
        bench.device.sendFrame(FrameType::Control, answer);
        QTRY_COMPARE(done.size(), 1);
        QTEST(done.first(), "outcome");
    }
    void receiverRequestsOneAtATime()
    {
        Bench bench({50, 10000, 100, 40, 300}, UsbDevice::Role::Receiver);
        bench.device.setAnswersReceiver(false);
        QSignalSpy opened(&*bench.link, &DeviceLink::opened);
        QVERIFY(bench.open());
        QCOMPARE(opened.first().first().toJsonObject().value("receiver"), true);
        QVERIFY(bench.link->isReceiver());
        QStringList done;
        bench.link->setReceiver("   ", false, std::nullopt, into(done));
        bench.link->setReceiver("ignored", true, std::nullopt, into(done));
        bench.link->setReceiver("K", false, 1, into(done));
        bench.link->rebootReceiver(into(done));
        const QString busy = "failed||Another receiver request is still in progress";
        QCOMPARE(done, (QStringList{"failed||Give a key, ask for a new key, or choose a channel",
                                    busy, busy}));
        QTRY_COMPARE(bench.kinds.count("rx_set"), 1);
        QCOMPARE(bench.lastRequest, (QJsonObject{{"t", "rx_set"}, {"generate_key", true}}));
        QTRY_COMPARE(done.size(), 4);
        QCOMPARE(done.last(), "failed||The receiver did not answer");
        // A late answer counts for nothing; the status sent after it shows it was read.
        QSignalSpy updated(&*bench.link, &UsbLink::receiverUpdated);
        bench.device.sendControl({{"t", "rx_set"}, {"ok", true}});
        bench.device.sendReceiverStatus();
        QTRY_COMPARE(updated.count(), 1);
        QCOMPARE(done.size(), 4);
        bench.device.setAnswersReceiver(true); // the slot is free again
        bench.link->requestReceiverStatus(into(done));
        QTRY_COMPARE(done.size(), 5);
        QCOMPARE(updated.count(), 2);
        bench.link->rebootReceiver(into(done));
        QTRY_COMPARE(done.size(), 6);
        QCOMPARE(done.sliced(4), (QStringList{"ok||", "ok||"}));
        QCOMPARE(bench.kinds.count("rx_status"), 1);
        QCOMPARE(bench.kinds.count("rx_reboot"), 1); // not the one refused while busy
    }
    void relayRoundTripIsPacedUntilUnplugged()
    {
        const int pacing = 60;
        Bench bench({50, 10000, 100, pacing, 2000});
        bench.shareThroughEcho();
        bench.device.setPollInterval(1);
        CloudRelay* relay = bench.link->cloudRelay();
        QVERIFY(bench.open());
        QByteArray sent;
        for (char c : {'a', 'b', 'c', 'd', 'e', 'f'}) {
            bench.device.sendFrame(FrameType::CloudRelay, QByteArray(500, c));
            sent += QByteArray(500, c);
        }
        QTRY_COMPARE_WITH_TIMEOUT(bench.relay.join(), sent, 10000);
        QVERIFY(relay->isConnected());
        for (const QByteArray& frame : std::as_const(bench.relay))
            QVERIFY(frame.size() <= 512);
        // Arrivals carry the device's read delay on a shared event loop too, hence the tolerance.
        const QList<qint64>& at = bench.arrivals;
        for (qsizetype i = 1; i < at.size(); ++i)
            QVERIFY2(at[i] - at[i - 1] >= pacing - 10,
                     qPrintable(QString::number(at[i] - at[i - 1])));
        QSignalSpy closed(&*bench.link, &DeviceLink::closed);
        QSignalSpy failed(&*bench.link, &DeviceLink::failed);
        bench.device.unplug();
        QTRY_COMPARE(closed.count(), 1);
        QCOMPARE(closed.first().first(), "The USB device was unplugged or stopped responding.");
        QVERIFY(!bench.link->adminTransport()->isOpen());
        QVERIFY(!bench.link->isOpened());
        QVERIFY(!relay->isReady());
        QCOMPARE(failed.count(), 0);
    }
    void hellosAndRelayQueue()
    {
        Bench bench;
        const QJsonObject tunnel{{"host", "127.0.0.1"}, {"port", 4000}};
        const QJsonObject streams{{"camera", QJsonObject{{"port", 5000}}}};
        bench.device.setHelloInfo({{"tunnel", tunnel}, {"streams", streams}});
        QSignalSpy changed(&*bench.link, &UsbLink::tunnelChanged);
        QSignalSpy opened(&*bench.link, &DeviceLink::opened);
        CloudRelay* relay = bench.link->cloudRelay();
        relay->setShareConnection(true);
        QVERIFY(bench.open());
        QVERIFY(bench.link->isOpened());
        QVERIFY(!bench.link->isReceiver());
        QTRY_VERIFY(bench.pingsSinceHello() >= 3); // hellos (50 ms) stopped, pings (100 ms) not
        QCOMPARE(changed.count(), 1);
        QCOMPARE(bench.link->tunnel(), tunnel);
        QVERIFY(relay->isReady());
        QCOMPARE(bench.link->streamRelay()->streams(), streams);
        // 1024 relay frames fit: the first goes out at once and the relay keeps its tunnel.
        bench.link->sendRelay(QByteArray(1024 * 512, 'x'));
        QVERIFY(relay->isReady());
        QTRY_VERIFY(!bench.relay.isEmpty());
        // One more piece than the queue holds drops everything queued.
        bench.link->sendRelay(QByteArray(1024 * 512, 'y'));
        QVERIFY(!relay->isReady());
        bench.link->sendRelay("after the overflow");
        QTRY_COMPARE(bench.relay.last(), "after the overflow");
        const QList<QByteArray> before = bench.relay.first(bench.relay.size() - 1);
        QVERIFY(before.size() < 10);
        QCOMPARE(before, QList<QByteArray>(before.size(), QByteArray(512, 'x')));
        bench.device.sendFrame(FrameType::StreamRelay, "abcd"); // nowhere to go: counted
        bench.device.sendControl({{"t", "hello"}, {"name", "Renamed"}, {"tunnel", tunnel}});
        QTRY_COMPARE(bench.link->deviceInfo().value("name"), "Renamed");
        QCOMPARE(bench.link->streamRelay()->droppedBytes(), 4);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(opened.count(), 1); // already opened
        QVERIFY(relay->isReady());   // the tunnel is taken up again
        bench.device.sendControl({{"t", "hello"}, {"name", "No tunnel"}});
        QTRY_COMPARE(changed.count(), 2);
        QVERIFY(bench.link->tunnel().isEmpty());
        QVERIFY(relay->isWaiting());
        bench.link->close();
        QCOMPARE(bench.link->streamRelay()->droppedBytes(), 0);
    }
    // Unplugged halfway through a frame, then plugged in again, its stable name now leading to
    // the new terminal as the system's by-id links do: the link reports the loss and opens again,
    // and the rest of the half frame is not taken for a frame.
    void replugMidFrame()
    {
        QTemporaryDir dir;
        const QString byId = dir.filePath("usb-Vantorelle-if00");
        UsbDevice device;
        QVERIFY(device.start());
        QVERIFY(QFile::link(device.portPath(), byId));
        UsbLink link(byId, {50, 10000, 100, 40, 2000});
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy closed(&link, &DeviceLink::closed);
        QSignalSpy envelopes(&link, &DeviceLink::envelope);
        link.open();
        QVERIFY(opened.wait());
        const QByteArray three = hex("0056540112007b22686f6d655f73636f7265223a2233227d50a2");
        const QByteArray four = hex("0056540112007b22686f6d655f73636f7265223a2234227dc027");
        device.sendRaw(three + four.first(12)); // the whole frame shows the half was read too
        QVERIFY(envelopes.wait());
        device.unplug();
        QVERIFY(closed.wait());
        QVERIFY(device.start());
        QVERIFY(QFile::remove(byId) && QFile::link(device.portPath(), byId));
        // The rest of the half frame comes first, before even the answer to hello.
        device.setAnswersHello(false);
        const int hellos = device.helloCount();
        link.open();
        QTRY_VERIFY(device.helloCount() > hellos);
        device.sendRaw(four.sliced(12) + three);
        QVERIFY(envelopes.wait());
        QCOMPARE(envelopes.size(), 2);
        QCOMPARE(envelopes.last().first().toJsonObject(), (QJsonObject{{"home_score", "3"}}));
        device.sendControl({{"t", "hello"}});
        QVERIFY(opened.wait());
        QCOMPARE(closed.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestUsbLink)
#include "tst_usb_link.moc"
