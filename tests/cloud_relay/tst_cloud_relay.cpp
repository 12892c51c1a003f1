#include "cloud_relay.h"
#include "common/test_support.h"
#include "sim/usb_device.h"
#include "usb_link.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

using namespace vantorelle;

class TestCloudRelay : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The relay's link never opens: the test drives the relay as the link would.
    void carriesTheDevicesBytes()
    {
        UsbLink link("/nonexistent/ttyVT0");
        CloudRelay* relay = link.cloudRelay();
        QCOMPARE(relay->link(), &link);
        QSignalSpy changes(relay, &CloudRelay::stateChanged);
        const quint16 port = test::freePort();
        QVERIFY(!relay->isWaiting() && !relay->isReady() && !relay->isConnected());
        relay->setTunnel("127.0.0.1", port);
        relay->fromDevice("dropped"); // not sharing
        QVERIFY(!relay->isReady());
        QCOMPARE(relay->pendingBytes(), 0);
        relay->setShareConnection(true);
        relay->setShareConnection(true);
        relay->setTunnel("127.0.0.1", port);
        QCOMPARE(changes.count(), 2);
        QVERIFY(relay->isReady() && !relay->isWaiting());
        relay->fromDevice("first"); // nobody listens yet
        QTRY_VERIFY(!relay->lastError().isEmpty());
        QCOMPARE(changes.count(), 3);
        QVERIFY(!relay->isConnected() && relay->isReady());
        // Bytes sent while connecting wait, up to a bound.
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost, port));
        qsizetype received = 0;
        connect(&server, &QTcpServer::newConnection, this, [&] {
            QTcpSocket* socket = server.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this,
                    [&received, socket] { received += socket->readAll().size(); });
        });
        relay->fromDevice(QByteArray(200000, 'a'));
        relay->fromDevice(QByteArray(100000, 'b'));
        QCOMPARE(relay->pendingBytes(), 262144);
        QTRY_COMPARE(received, 262144);
        QVERIFY(relay->isConnected());
        QVERIFY(relay->lastError().isEmpty());
        QCOMPARE(changes.count(), 4);
        QCOMPARE(relay->pendingBytes(), 0);
        relay->fromDevice(QByteArray(10, 'c'));
        QTRY_COMPARE(received, 262144 + 10);
        // The cloud ending its side is a normal end, not an error to show.
        server.findChild<QTcpSocket*>()->close();
        QTRY_VERIFY(!relay->isConnected());
        QVERIFY(relay->lastError().isEmpty());
        QCOMPARE(changes.count(), 5);
        relay->fromDevice("again");
        QTRY_VERIFY(relay->isConnected());
        relay->setShareConnection(false);
        QVERIFY(!relay->isConnected());
        relay->fromDevice("dropped");
        QCOMPARE(relay->pendingBytes(), 0);
        relay->reset();
        QCOMPARE(changes.count(), 8);
        QVERIFY(relay->tunnelHost().isEmpty() && relay->tunnelPort() == 0);
    }
    // The cloud is far faster than the cable: the relay stops reading while the device's queue
    // is over half full instead of overflowing it, and the whole download arrives.
    void downloadBurstWaitsForTheDevice()
    {
        VANTORELLE_NEEDS_PTY();
        sim::UsbDevice device;
        QVERIFY(device.start());
        qsizetype toDevice = 0;
        connect(&device, &sim::UsbDevice::relayReceived, this,
                [&](const QByteArray& bytes) { toDevice += bytes.size(); });
        UsbLink link(device.portPath(), UsbLinkSettings{50, 2000, 1000, 1});
        link.open();
        QTRY_VERIFY(link.isOpened());
        link.sendRelay({}); // nothing to send is nothing to do
        QCOMPARE(link.relayQueueSize(), 0);
        QTcpServer cloud;
        QVERIFY(cloud.listen(QHostAddress::LocalHost));
        const QByteArray burst(600 * 1024, 'd'); // 1200 frames: more than the queue holds
        connect(&cloud, &QTcpServer::newConnection, this,
                [&] { cloud.nextPendingConnection()->write(burst); });
        CloudRelay* relay = link.cloudRelay();
        relay->setShareConnection(true);
        relay->setTunnel("127.0.0.1", cloud.serverPort());
        relay->fromDevice("GET /");
        qsizetype mostQueued = 0;
        bool paused = false;
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                mostQueued = qMax(mostQueued, link.relayQueueSize());
                paused = paused || relay->isPaused();
                return toDevice == burst.size();
            }(),
            30000);
        QVERIFY(paused);
        QVERIFY2(mostQueued <= 513, qPrintable(QString::number(mostQueued)));
        QVERIFY(relay->isConnected() && !relay->isPaused());
    }
    // A cloud that refuses is tried again after 1 s, then 2 s and so on, not at every frame.
    void refusedConnectionBacksOff()
    {
        UsbLink link("/nonexistent/ttyVT0");
        CloudRelay* relay = link.cloudRelay();
        relay->setRetryDelays(20, 80);
        relay->setShareConnection(true);
        relay->setTunnel("127.0.0.1", test::freePort());
        QList<int> waits;
        connect(relay, &CloudRelay::stateChanged, this, [&] { waits << relay->nextRetryMs(); });
        relay->fromDevice("a");
        QTRY_VERIFY(waits.size() >= 4);
        for (int i = 0; i < 10; ++i)
            relay->fromDevice("b"); // waits for the retry, no new connection each time
        QCOMPARE(waits.mid(0, 4), (QList<int>{40, 80, 80, 80}));
        QCOMPARE(relay->pendingBytes(), 11);
    }
};

QTEST_GUILESS_MAIN(TestCloudRelay)
#include "tst_cloud_relay.moc"
