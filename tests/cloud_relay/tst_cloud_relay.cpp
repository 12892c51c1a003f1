#include "cloud_relay.h"
#include "common/test_support.h"
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
};

QTEST_GUILESS_MAIN(TestCloudRelay)
#include "tst_cloud_relay.moc"
