#include "common/live_data_support.h"
#include "links/tls_feed.h"
#include "sim/feed_server.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace vantorelle;
using vantorelle::sim::FeedServer;
using vantorelle::test::jsonObject;
using vantorelle::test::jsonText;

namespace {

const QString kToken = QStringLiteral("tok\"en");
const QString kRejectedAtStart = QStringLiteral(
    "The device rejected the connection. Re-run device setup to refresh its access.");
const QString kRevoked = QStringLiteral("The device rejected the connection.");

} // namespace

class TestTlsFeed : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<FeedServer> m_server;
    std::unique_ptr<TlsFeed> m_feed;

    // Starts the feed against the server; `live` waits for the device to accept it.
    void startFeed(bool live = true)
    {
        m_feed = std::make_unique<TlsFeed>(TlsFeedSettings{m_server->serverPort(), 10, 150});
        m_feed->start(QStringLiteral("127.0.0.1"), kToken);
        if (live)
            QTRY_VERIFY(m_feed->isAuthenticated());
    }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<FeedServer>();
        m_server->setExpectedToken(kToken);
        QVERIFY(m_server->start());
    }

    void cleanup()
    {
        m_feed.reset();
        m_server.reset();
    }

    void authenticatesWithItsToken()
    {
        m_feed = std::make_unique<TlsFeed>(TlsFeedSettings{m_server->serverPort(), 10, 150});
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        m_feed->start(QStringLiteral("127.0.0.1"), kToken);
        QTRY_COMPARE(connected.count(), 1);
        QCOMPARE(connected.first(), (QVariantList{true, QString()}));
        // The token is escaped as a JSON string; the line ends in CR LF.
        QCOMPARE(m_server->authLines(),
                 QList<QByteArray>{"{\"type\":\"auth\",\"token\":\"tok\\\"en\"}\r\n"});
        QVERIFY(m_feed->lastError().isEmpty());
    }

    void deliversEnvelopes_data()
    {
        QTest::addColumn<QByteArrayList>("writes");
        QTest::addColumn<QByteArrayList>("expected");
        const QByteArray one = jsonText("{'type':'score','home_score':1}");
        const QByteArray two = jsonText("{'type':'score','home_score':2}");
        QTest::newRow("two lines in one write")
            << QByteArrayList{one + "\n" + two + "\n"} << QByteArrayList{one, two};
        QTest::newRow("one line over two writes")
            << QByteArrayList{one.left(9), one.mid(9) + "\n"} << QByteArrayList{one};
        QTest::newRow("carriage return") << QByteArrayList{one + "\r\n"} << QByteArrayList{one};
        QTest::newRow("type missing") << QByteArrayList{jsonText("{'fields':{'clock':'1:00'}}\n")}
                                      << QByteArrayList{jsonText("{'fields':{'clock':'1:00'}}")};
        QTest::newRow("blank and non-object lines")
            << QByteArrayList{"\n  \r\n[1,2]\n\"auth_fail\"\nnot json\n" + two + "\n"}
            << QByteArrayList{two};
    }

    void deliversEnvelopes()
    {
        QFETCH(QByteArrayList, writes);
        QFETCH(QByteArrayList, expected);
        startFeed();
        QSignalSpy envelopes(m_feed.get(), &TlsFeed::envelope);
        for (const QByteArray& bytes : writes) {
            m_server->writeRaw(bytes);
            QTest::qWait(20); // lets each write arrive on its own
        }
        m_server->broadcast(jsonObject(jsonText("{'type':'end'}")));
        QTRY_COMPARE(envelopes.count(), expected.size() + 1);
        for (qsizetype i = 0; i < expected.size(); ++i)
            QCOMPARE(envelopes.at(i).first().toJsonObject(), jsonObject(expected.at(i)));
        QVERIFY(m_feed->isAuthenticated());
    }

    void rejectionStopsForGood_data()
    {
        QTest::addColumn<QByteArray>("firstReply"); // empty: the token is accepted
        QTest::addColumn<QString>("detail");
        QTest::newRow("auth_fail first") << jsonText("{'type':'auth_fail'}") << kRejectedAtStart;
        QTest::newRow("other first reply") << jsonText("{'type':'score'}") << kRejectedAtStart;
        QTest::newRow("auth_fail while live") << QByteArray() << kRevoked;
    }

    void rejectionStopsForGood()
    {
        QFETCH(QByteArray, firstReply);
        QFETCH(QString, detail);
        if (!firstReply.isEmpty())
            m_server->setFirstReply(jsonObject(firstReply));
        startFeed(firstReply.isEmpty());
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        m_server->revokeAccess();
        QTRY_COMPARE(connected.count(), 1);
        QCOMPARE(connected.first(), (QVariantList{false, detail}));
        QCOMPARE(m_feed->lastError(), detail);
        QVERIFY(!m_feed->isRunning());
        QTRY_COMPARE(m_server->clientCount(), 0);
        QTest::qWait(100); // ten times the first reconnect delay
        QCOMPARE(m_server->connectionCount(), 1);
        QCOMPARE(connected.count(), 1);
    }

    void lostConnectionIsReportedAndRetried()
    {
        startFeed();
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        m_server->dropConnections();
        QTRY_COMPARE(connected.count(), 2);
        QCOMPARE(connected.at(0).at(0).toBool(), false);
        QVERIFY2(connected.at(0).at(1).toString().startsWith(
                     "Could not reach the device on your network ("),
                 qPrintable(connected.at(0).at(1).toString()));
        QCOMPARE(connected.at(1), (QVariantList{true, QString()}));
        QCOMPARE(m_server->connectionCount(), 2);
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

    void stopReportsOnce()
    {
        startFeed();
        QSignalSpy connected(m_feed.get(), &TlsFeed::connectedChanged);
        m_feed->stop();
        QCOMPARE(connected.count(), 1);
        QCOMPARE(connected.first(), (QVariantList{false, QString()}));
        QTRY_COMPARE(m_server->clientCount(), 0);
        m_feed->stop();
        QCOMPARE(connected.count(), 1);
        QCOMPARE(m_server->connectionCount(), 1);
    }

    void deletingWhileConnectingIsSafe()
    {
        m_server->setSilent(true);
        startFeed(false);
        QTRY_COMPARE(m_server->authLines().size(), 1);
        m_feed.reset();
        QTRY_COMPARE(m_server->clientCount(), 0);
    }
};

QTEST_GUILESS_MAIN(TestTlsFeed)
#include "tst_tls_feed.moc"
