#include "common/test_support.h"
#include "links/cloud_relay.h"
#include "links/usb_link.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

using namespace vantorelle;

namespace {

// Counts the bytes that reach it over every connection.
class SinkServer : public QTcpServer
{
public:
    SinkServer()
    {
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = nextPendingConnection())
                connect(socket, &QTcpSocket::readyRead, socket,
                        [this, socket] { received += socket->readAll().size(); });
        });
    }
    qsizetype received = 0;
};

// The relay's own link never opens: these cases drive the relay directly.
const QString kNoPort = QStringLiteral("/nonexistent/ttyVT0");

} // namespace

class TestCloudRelay : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void buffersBoundedBytesWhileConnecting();
    void socketErrorIsReportedThenReconnects();
    void reportsItsState();
};

void TestCloudRelay::buffersBoundedBytesWhileConnecting()
{
    SinkServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, 0));
    UsbLink link(kNoPort);
    CloudRelay* relay = link.cloudRelay();
    relay->setShareConnection(true);
    relay->setTunnel(QStringLiteral("127.0.0.1"), server.serverPort());
    relay->fromDevice(QByteArray(200000, 'a'));
    relay->fromDevice(QByteArray(100000, 'b')); // still connecting: only part of it fits
    QCOMPARE(relay->pendingBytes(), CloudRelay::PendingLimit);
    QTRY_COMPARE(server.received, CloudRelay::PendingLimit);
    QVERIFY(relay->isConnected());
    QCOMPARE(relay->pendingBytes(), 0);
    relay->fromDevice(QByteArray(10, 'c'));
    QTRY_COMPARE(server.received, CloudRelay::PendingLimit + 10);

    relay->setShareConnection(false);
    QVERIFY(!relay->isConnected());
    relay->fromDevice(QByteArray(10, 'd'));
    QCOMPARE(relay->pendingBytes(), 0);
}

void TestCloudRelay::socketErrorIsReportedThenReconnects()
{
    const quint16 port = test::freePort();
    UsbLink link(kNoPort);
    CloudRelay* relay = link.cloudRelay();
    relay->setShareConnection(true);
    relay->setTunnel(QStringLiteral("127.0.0.1"), port);
    relay->fromDevice("first");
    QTRY_VERIFY(!relay->lastError().isEmpty());
    QVERIFY(!relay->isConnected());
    QVERIFY(relay->isReady());

    SinkServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost, port));
    relay->fromDevice("second");
    QTRY_COMPARE(server.received, qsizetype(6));
    QVERIFY(relay->isConnected());
    QVERIFY(relay->lastError().isEmpty());
}

void TestCloudRelay::reportsItsState()
{
    UsbLink link(kNoPort);
    CloudRelay* relay = link.cloudRelay();
    QCOMPARE(relay->link(), &link);
    QVERIFY(!relay->isWaiting() && !relay->isReady() && !relay->isConnected());
    relay->setTunnel(QStringLiteral("127.0.0.1"), 4000);
    QVERIFY(!relay->isReady()); // not sharing
    relay->fromDevice("dropped");
    QCOMPARE(relay->pendingBytes(), 0);
    relay->setShareConnection(true);
    QVERIFY(relay->isReady());
    QVERIFY(!relay->isWaiting());
    relay->reset();
    QVERIFY(relay->isWaiting());
    QVERIFY(relay->tunnelHost().isEmpty());
}

QTEST_GUILESS_MAIN(TestCloudRelay)
#include "tst_cloud_relay.moc"
