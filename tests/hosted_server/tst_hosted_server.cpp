#include "common/live_data_support.h"
#include "common/test_support.h"
#include "live/hosted_server.h"
#include "live/live_data.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>

#include <memory>
#include <vector>

using namespace vantorelle;
using vantorelle::test::jsonObject;
using vantorelle::test::jsonText;
using vantorelle::test::LineClient;

class TestHostedServer : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<LiveData> m_live;
    std::unique_ptr<HostedServer> m_server;

    QByteArray snapshot() const { return m_live->toJsonLine().chopped(1); }

    // Connects a client to the running server and takes the snapshot it is greeted with.
    bool connectClient(LineClient& client)
    {
        return client.connectTo("127.0.0.1", m_server->serverPort()) &&
               client.readLine() == snapshot();
    }

    // The handler the application would install: records what it was asked, answers `reply`.
    QString m_seenOp;
    QJsonObject m_seenRequest;
    int m_handlerCalls = 0;
    void installHandler(const QJsonObject& reply)
    {
        m_server->setHandler([this, reply](const QString& op, const QJsonObject& request) {
            ++m_handlerCalls;
            m_seenOp = op;
            m_seenRequest = request;
            return reply;
        });
    }

private Q_SLOTS:
    void init()
    {
        m_live = std::make_unique<LiveData>();
        QVERIFY(
            m_live->apply(jsonObject(jsonText("{'sport':'hockey','fields':{'home_score':2}}"))));
        m_server = std::make_unique<HostedServer>(m_live.get());
        QVERIFY(m_server->start(0, false));
        m_handlerCalls = 0;
        m_seenOp.clear();
        m_seenRequest = {};
    }

    void cleanup() { m_server.reset(); }

    void snapshotAtOnceOnConnect()
    {
        QSignalSpy spy(m_server.get(), &HostedServer::clientsChanged);
        LineClient client;
        QVERIFY(client.connectTo("127.0.0.1", m_server->serverPort()));
        QCOMPARE(client.readLine(), snapshot());
        QCOMPARE(m_server->clientCount(), 1);
        QCOMPARE(spy.last().first().toInt(), 1);
    }

    void getAnswersTheSnapshot_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("bare") << QByteArray("get\n");
        QTest::newRow("object") << jsonText("{'op':'get'}\n");
        QTest::newRow("carriage return") << QByteArray("get\r\n");
        QTest::newRow("blanks around") << QByteArray(" \tget  \n");
        QTest::newRow("object with extra keys") << jsonText("{'op':'get','ok':false}\n");
    }
    void getAnswersTheSnapshot()
    {
        QFETCH(QByteArray, line);
        installHandler({});
        LineClient client;
        QVERIFY(connectClient(client));
        QVERIFY(m_live->apply(jsonObject(jsonText("{'fields':{'clock':'1:00'}}"))));
        client.send(line);
        QCOMPARE(client.readLine(), snapshot());
        QCOMPARE(m_handlerCalls, 0);
    }

    void blankLinesGetNoReply()
    {
        installHandler({});
        LineClient client;
        QVERIFY(connectClient(client));
        client.send("\n   \n\t\r\n" + jsonText("{'op':'get'}\n"));
        QCOMPARE(client.readLine(), snapshot());
        QCOMPARE(m_handlerCalls, 0);
    }

    void lineSplitAcrossReads()
    {
        LineClient client;
        QVERIFY(connectClient(client));
        client.send("ge");
        QVERIFY(client.staysQuiet(100));
        client.send("t\nget\n");
        QCOMPARE(client.readLine(), snapshot());
        QCOMPARE(client.readLine(), snapshot());
    }

    void invalidJsonKeepsTheClient_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("cut short") << jsonText("{'op':");
        QTest::newRow("unquoted") << QByteArray("{op:get}");
        QTest::newRow("trailing text") << jsonText("{'op':'get'} x");
        QTest::newRow("lone brace") << QByteArray("{");
    }
    void invalidJsonKeepsTheClient()
    {
        QFETCH(QByteArray, line);
        installHandler({});
        LineClient client;
        QVERIFY(connectClient(client));
        client.send(line + "\nget\n");
        QCOMPARE(client.readObject(), jsonObject(jsonText("{'ok':false,'error':'invalid_json'}")));
        QCOMPARE(client.readLine(), snapshot());
        QCOMPARE(m_handlerCalls, 0);
    }

    void withoutHandlerUnavailable()
    {
        LineClient client;
        QVERIFY(connectClient(client));
        client.send(jsonText("status\n{'op':'devices'}\n"));
        const QJsonObject unavailable = jsonObject(jsonText("{'ok':false,'error':'unavailable'}"));
        QCOMPARE(client.readObject(), unavailable);
        QCOMPARE(client.readObject(), unavailable);
    }

    void handlerReplies_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QByteArray>("handlerReply");
        QTest::addColumn<QString>("op");
        QTest::addColumn<QByteArray>("reply");
        auto row = [](const char* name, const char* line, const char* handlerReply, const char* op,
                      const char* reply) {
            QTest::newRow(name) << jsonText(line) << jsonText(handlerReply) << QString(op)
                                << jsonText(reply);
        };
        row("ok added", "status", "{'live':true}", "status",
            "{'live':true,'ok':true,'op':'status'}");
        row("handler's ok kept", "{'op':'use','device':'x'}",
            "{'ok':false,'error':'unknown_device'}", "use",
            "{'ok':false,'error':'unknown_device','op':'use'}");
        row("op overwritten", "devices", "{'op':'other','devices':[]}", "devices",
            "{'devices':[],'ok':true,'op':'devices'}");
        row("request's ok ignored", "{'op':'status','ok':false}", "{'sport':'hockey'}", "status",
            "{'sport':'hockey','ok':true,'op':'status'}");
        row("array line is a bare op", "[1,2]", "{'ok':false,'error':'unknown_op'}", "[1,2]",
            "{'ok':false,'error':'unknown_op','op':'[1,2]'}");
        row("get is case-sensitive", "GET", "{'ok':false,'error':'unknown_op'}", "GET",
            "{'ok':false,'error':'unknown_op','op':'GET'}");
        row("op missing", "{'device':'x'}", "{'ok':false,'error':'unknown_op'}", "",
            "{'ok':false,'error':'unknown_op','op':''}");
        row("op not a string", "{'op':5}", "{}", "", "{'ok':true,'op':''}");
    }
    void handlerReplies()
    {
        QFETCH(QByteArray, line);
        QFETCH(QByteArray, handlerReply);
        QFETCH(QString, op);
        QFETCH(QByteArray, reply);
        installHandler(jsonObject(handlerReply));
        LineClient client;
        QVERIFY(connectClient(client));
        client.send(line + "\n");
        QCOMPARE(client.readObject(), jsonObject(reply));
        QCOMPARE(m_handlerCalls, 1);
        QCOMPARE(m_seenOp, op);
        QCOMPARE(m_seenRequest, line.startsWith('{') ? jsonObject(line) : QJsonObject());
    }

    void repliesGoOnlyToTheAsker()
    {
        installHandler({});
        LineClient asker, other;
        QVERIFY(connectClient(asker));
        QVERIFY(connectClient(other));
        asker.send("status\n");
        QCOMPARE(asker.readObject(), jsonObject(jsonText("{'ok':true,'op':'status'}")));
        QVERIFY(other.staysQuiet(100));
    }

    void pendingBytesCap_data()
    {
        QTest::addColumn<int>("lineBytes"); // including the line feed
        QTest::addColumn<bool>("dropped");
        QTest::newRow("at the cap") << int(HostedServer::MaxPendingBytes) << false;
        QTest::newRow("one byte over") << int(HostedServer::MaxPendingBytes) + 1 << true;
        QTest::newRow("far over") << 4 * int(HostedServer::MaxPendingBytes) << true;
    }
    void pendingBytesCap()
    {
        QFETCH(int, lineBytes);
        QFETCH(bool, dropped);
        LineClient client;
        QVERIFY(connectClient(client));
        const QByteArray head = jsonText("{'op':'get','pad':'");
        const QByteArray tail = "\"}\n";
        client.send(head + QByteArray(lineBytes - head.size() - tail.size(), 'a') + tail);
        if (dropped) {
            QVERIFY(client.waitForClose());
            QCOMPARE(client.readLine(0), QByteArray());
            QTRY_COMPARE(m_server->clientCount(), 0);
        } else {
            QCOMPARE(client.readLine(), snapshot());
            QCOMPARE(m_server->clientCount(), 1);
        }
    }

    void broadcastReachesEveryClientInOrder()
    {
        connect(m_live.get(), &LiveData::changed, m_server.get(), &HostedServer::broadcast);
        std::vector<LineClient> clients(3);
        for (LineClient& client : clients)
            QVERIFY(connectClient(client));

        QVERIFY(m_live->apply(jsonObject(jsonText("{'fields':{'home_score':3}}"))));
        const QByteArray first = snapshot();
        QVERIFY(m_live->apply(jsonObject(jsonText("{'fields':{'home_score':4}}"))));
        const QByteArray second = snapshot();
        QVERIFY(first != second);
        for (LineClient& client : clients) {
            QCOMPARE(client.readLine(), first);
            QCOMPARE(client.readLine(), second);
        }
    }

    void broadcastBuildsOnceAndNothingWithoutClients()
    {
        int builds = 0;
        m_server->setSnapshot([&] {
            ++builds;
            return m_live->toJsonLine();
        });
        m_server->broadcast();
        QCOMPARE(builds, 0);

        std::vector<LineClient> clients(3);
        for (LineClient& client : clients)
            QVERIFY(connectClient(client));
        QCOMPARE(builds, 3); // one greeting each
        m_server->broadcast();
        QCOMPARE(builds, 4);
        for (LineClient& client : clients)
            QCOMPARE(client.readLine(), snapshot());
    }

    void disconnectedClientIsCounted()
    {
        LineClient stays, leaves;
        QVERIFY(connectClient(stays));
        QVERIFY(connectClient(leaves));
        QSignalSpy spy(m_server.get(), &HostedServer::clientsChanged);
        leaves.socket().disconnectFromHost();
        QTRY_COMPARE(spy.count(), 1);
        QCOMPARE(spy.first().first().toInt(), 1);
        QCOMPARE(m_server->clientCount(), 1);
    }

    void restartDropsClientsBeforeListening()
    {
        LineClient a, b;
        QVERIFY(connectClient(a));
        QVERIFY(connectClient(b));
        const quint16 oldPort = m_server->serverPort();
        QList<QPair<int, bool>> emitted; // count, and whether the server listened at that moment
        connect(m_server.get(), &HostedServer::clientsChanged, this, [&](int count) {
            emitted.append({count, m_server->isListening()});
        });

        const quint16 newPort = test::freePort();
        QVERIFY(m_server->start(newPort, false));
        QCOMPARE(emitted.value(0), qMakePair(0, false));
        QCOMPARE(m_server->clientCount(), 0);
        QVERIFY(a.waitForClose());
        QVERIFY(b.waitForClose());
        QCOMPARE(m_server->serverPort(), newPort);
        QVERIFY(test::canConnect("127.0.0.1", newPort));
        QVERIFY(!test::canConnect("127.0.0.1", oldPort));
    }

    void busyPortIsReported()
    {
        QTcpServer occupant;
        QVERIFY(occupant.listen(QHostAddress::LocalHost, 0));
        const quint16 port = occupant.serverPort();
        QString error;
        QVERIFY(!m_server->start(port, false, &error));
        const QString prefix = QStringLiteral("Could not listen on port %1: ").arg(port);
        QVERIFY2(error.startsWith(prefix) && error.size() > prefix.size(), qPrintable(error));
        QCOMPARE(m_server->lastError(), error);
        QVERIFY(!m_server->isListening());
        QCOMPARE(m_server->clientCount(), 0);

        QVERIFY(m_server->start(0, false));
        QCOMPARE(m_server->lastError(), QString());
    }

    void loopbackOnlyWithoutNetworkAccess()
    {
        const quint16 port = m_server->serverPort();
        QVERIFY(test::canConnect("127.0.0.1", port));
        const QString address = test::nonLoopbackAddress();
        if (address.isEmpty())
            QSKIP("this machine has no non-loopback address");
        QVERIFY(!test::canConnect(address, port));
    }

    void networkAddressWithNetworkAccess()
    {
        QVERIFY(m_server->start(0, true));
        const quint16 port = m_server->serverPort();
        QVERIFY(test::canConnect("127.0.0.1", port));
        const QString address = test::nonLoopbackAddress();
        if (address.isEmpty())
            QSKIP("this machine has no non-loopback address");
        QVERIFY(test::canConnect(address, port));
    }

    // Regression: a handler that stops the server must not leave replies for closed clients.
    void handlerMayStopTheServer()
    {
        QTest::failOnWarning(QRegularExpression(".*"));
        m_server->setHandler([this](const QString&, const QJsonObject&) {
            m_server->stop();
            return QJsonObject();
        });
        LineClient client;
        QVERIFY(connectClient(client));
        client.send("stop\nget\n");
        QVERIFY(client.waitForClose());
        QCOMPARE(client.readLine(0), QByteArray());
        QVERIFY(!m_server->isListening());
    }
};

QTEST_GUILESS_MAIN(TestHostedServer)
#include "tst_hosted_server.moc"
