#include "sim/feed_server.h"
#include "tls_feed.h"

#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>

#include <memory>

#include <unistd.h>

using namespace vantorelle;
using vantorelle::sim::FeedServer;

namespace {

// The resident memory of this process, in bytes.
qint64 residentBytes()
{
    QFile statm("/proc/self/statm");
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    return statm.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

} // namespace

class TestTlsFeed : public QObject
{
    Q_OBJECT
    const QString kToken = QStringLiteral("tok\"en");
    const QString kHost = QStringLiteral("127.0.0.1");
    std::unique_ptr<FeedServer> m_server;
    std::unique_ptr<TlsFeed> m_feed;
    void startFeed(bool live = true)
    {
        m_feed = std::make_unique<TlsFeed>(TlsFeedSettings{m_server->serverPort(), 10, 150});
        m_feed->start(kHost, kToken);
        if (live)
            QTRY_VERIFY(m_feed->isAuthenticated());
    }
private Q_SLOTS:
    void init()
    {
        m_feed.reset();
        m_server = std::make_unique<FeedServer>();
        m_server->setExpectedToken(kToken);
        QVERIFY(m_server->start());
    }
    void defaults()
    {
        TlsFeed feed;
        QCOMPARE(feed.nextReconnectDelayMs(), 1000);
        feed.start(kHost, kToken);
        QCOMPARE(feed.port(), quint16(1010));
    }
    // The auth line escapes the token as JSON and ends in CR LF. Envelopes are whole lines of
    // objects, however the bytes arrive. A drop is reported and retried; stopping reports once.
    void liveFeed()
    {
        startFeed(false);
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        QSignalSpy envelopes(m_feed.get(), &TlsFeed::envelope);
        QTRY_COMPARE(connected.count(), 1);
        m_server->writeRaw("{\"n\":0}\n{\"n\""); // the rest of the line comes later
        QTRY_COMPARE(envelopes.count(), 1);
        m_server->writeRaw(":1}\n\n  \r\n[1,2]\n\"auth_fail\"\nnot json\n{\"a\":2}\n{}\n");
        QTRY_COMPARE(envelopes.count(), 4);
        QCOMPARE(envelopes[1][0].toJsonObject(), (QJsonObject{{"n", 1}}));
        QCOMPARE(envelopes[2][0].toJsonObject(), (QJsonObject{{"a", 2}}));
        m_server->dropConnections();
        QTRY_COMPARE(connected.count(), 3);
        m_feed->stop();
        m_feed->stop();
        QCOMPARE(connected.count(), 4);
        QCOMPARE(connected[0], (QVariantList{true, QString()}));
        QCOMPARE(connected[1][0], false);
        QVERIFY(
            connected[1][1].toString().startsWith("Could not reach the device on your network ("));
        QCOMPARE(connected[2], (QVariantList{true, QString()}));
        QCOMPARE(connected[3], (QVariantList{false, QString()}));
        QVERIFY(m_feed->lastError().isEmpty());
        const QByteArray line = "{\"type\":\"auth\",\"token\":\"tok\\\"en\"}\r\n";
        QCOMPARE(m_server->authLines(), (QList<QByteArray>{line, line}));
        QTRY_COMPARE(m_server->clientCount(), 0);
    }
    void rejectionStopsForGood_data()
    {
        QTest::addColumn<QJsonObject>("firstReply"); // empty: the token is accepted
        QTest::addColumn<QString>("detail");
        const QString atStart = QStringLiteral(
            "The device rejected the connection. Re-run device setup to refresh its access.");
        QTest::newRow("auth_fail first") << QJsonObject{{"type", "auth_fail"}} << atStart;
        QTest::newRow("other first reply") << QJsonObject{{"type", "score"}} << atStart;
        QTest::newRow("auth_fail while live")
            << QJsonObject() << QStringLiteral("The device rejected the connection.");
    }
    void rejectionStopsForGood()
    {
        QFETCH(QJsonObject, firstReply);
        QFETCH(QString, detail);
        if (!firstReply.isEmpty())
            m_server->setFirstReply(firstReply);
        startFeed(firstReply.isEmpty());
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        m_server->revokeAccess();
        QTRY_COMPARE(connected.count(), 1);
        QCOMPARE(connected.first(), (QVariantList{false, detail}));
        QCOMPARE(m_feed->lastError(), detail);
        QVERIFY(!m_feed->isRunning()); // so it never connects again
    }
    // An attempt that stalls says why and is tried again: no TLS handshake, no answer to the
    // token, a line that never ends.
    void stalledAttemptsGiveUp_data()
    {
        QTest::addColumn<int>("stall");
        QTest::addColumn<QString>("detail");
        QTest::newRow("handshake") << 0 << "The device did not answer on your network within 1 s.";
        QTest::newRow("auth_ok") << 1 << "The device did not accept the connection within 1 s.";
        QTest::newRow("endless line")
            << 2 << "The device sent a line longer than 1 KiB, so the connection was dropped.";
    }
    void stalledAttemptsGiveUp()
    {
        QFETCH(int, stall);
        QFETCH(QString, detail);
        QTcpServer mute; // accepts and never speaks TLS
        QVERIFY(mute.listen(QHostAddress::LocalHost));
        m_server->setSilent(stall == 1);
        TlsFeedSettings settings{stall == 0 ? mute.serverPort() : m_server->serverPort(), 10, 150};
        settings.connectTimeoutMs = 300;
        settings.authTimeoutMs = 300;
        settings.maxLineBytes = 1024;
        TlsFeed feed(settings);
        QSignalSpy failed(&feed, &TlsFeed::attemptFailed);
        QSignalSpy connected(&feed, &TlsFeed::connectedChanged);
        feed.start(kHost, kToken);
        if (stall == 2) {
            QTRY_VERIFY(feed.isAuthenticated());
            m_server->writeRaw(QByteArray(1025, 'x'));
            QTRY_COMPARE(connected.count(), 3); // live, dropped, live again
            QCOMPARE(connected[1], (QVariantList{false, detail}));
            return;
        }
        QTRY_COMPARE(failed.count(), 2); // given up, and given up again after the wait
        QCOMPARE(failed[0][0].toString(), detail);
        QCOMPARE(feed.lastError(), detail);
        QCOMPARE(connected.count(), 0);
    }
    // A peer streaming without a line break is cut off at the default 64 KiB, not buffered.
    void hundredMegabytesWithoutNewline()
    {
        startFeed();
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        const QByteArray chunk(1 << 20, 'x');
        int sent = 0;
        while (connected.isEmpty() && sent < 100) {
            m_server->writeRaw(chunk);
            ++sent;
            QTest::qWait(5);
        }
        QTRY_COMPARE(connected.count(), 1);
        QCOMPARE(connected[0], (QVariantList{false, QStringLiteral("The device sent a line longer "
                                                                   "than 64 KiB, so the connection "
                                                                   "was dropped.")}));
        QVERIFY2(sent < 100, "the feed kept reading a line that never ended");
    }
    void backsOffToTheCapAndResetsAfterAuthOk()
    {
        m_server->setSilent(true); // every attempt waits for an answer until the server hangs up
        startFeed(false);
        QList<int> waits;
        for (int attempt = 1; attempt <= 6; ++attempt) {
            QTRY_COMPARE(m_server->authLines().size(), attempt);
            waits << m_feed->nextReconnectDelayMs();
            m_server->dropConnections();
        }
        QCOMPARE(waits, (QList<int>{10, 20, 40, 80, 150, 150}));
        // Refused attempts keep waiting at the cap until the device is back.
        const quint16 port = m_server->serverPort();
        m_server->close();
        QTRY_COMPARE(m_feed->lastError(),
                     QString("Could not reach the device on your network (Connection refused)."));
        m_server->setSilent(false);
        QVERIFY(m_server->start(port));
        QTRY_VERIFY(m_feed->isAuthenticated());
        QCOMPARE(m_feed->nextReconnectDelayMs(), 10);
    }
    // The device restarted 100 times on the same port: the feed is back after each restart, and
    // it holds one socket however many it went through.
    void followsAHundredRestarts()
    {
        const quint16 port = m_server->serverPort();
        startFeed();
        QSignalSpy envelopes(m_feed.get(), &TlsFeed::envelope);
        qsizetype objectsAfter10 = 0;
        qint64 memoryAfter10 = 0;
        for (int restart = 1; restart <= 100; ++restart) {
            m_server = std::make_unique<FeedServer>(); // the old one goes with its connections
            m_server->setExpectedToken(kToken);
            QSignalSpy authenticated(m_server.get(), &FeedServer::clientAuthenticated);
            QVERIFY(m_server->start(port));
            QVERIFY(authenticated.wait());
            m_server->broadcast({{"restart", restart}});
            QVERIFY(envelopes.wait());
            QCOMPARE(envelopes.last().first().toJsonObject(), (QJsonObject{{"restart", restart}}));
            QVERIFY(QTest::qWaitFor([&] { return m_feed->children().size() == 1; }));
            if (restart == 10) {
                objectsAfter10 = m_feed->findChildren<QObject*>().size();
                memoryAfter10 = residentBytes();
            }
        }
        QCOMPARE(m_feed->findChildren<QObject*>().size(), objectsAfter10);
        const qint64 grown = residentBytes() - memoryAfter10;
#ifndef __SANITIZE_ADDRESS__ // the sanitizer holds freed memory back on purpose
        QVERIFY2(grown < 2 * 1024 * 1024, qPrintable(QString::number(grown)));
#else
        Q_UNUSED(grown)
#endif
    }
};

QTEST_GUILESS_MAIN(TestTlsFeed)
#include "tst_tls_feed.moc"
