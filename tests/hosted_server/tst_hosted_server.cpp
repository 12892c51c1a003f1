#include "common/live_data_support.h"
#include "common/test_support.h"
#include "hosted_server.h"
#include "live_data.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>

#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace vantorelle;
using namespace vantorelle::test;

class TestHostedServer : public QObject
{
    Q_OBJECT

    LiveData m_live;
    std::unique_ptr<HostedServer> m_server;

    QByteArray snapshot() const { return m_live.toJsonLine().chopped(1); }
    // Connects a client and takes the snapshot it is greeted with.
    bool connectClient(LineClient& client)
    {
        return client.connectTo("127.0.0.1", m_server->serverPort()) &&
               client.readLine() == snapshot();
    }

private Q_SLOTS:
    void init()
    {
        m_live.clear();
        QVERIFY(m_live.apply(jsonObject(jsonText("{'sport':'hockey','fields':{'home_score':2}}"))));
        m_server = std::make_unique<HostedServer>(&m_live);
        QVERIFY(m_server->start(0, false));
    }
    void cleanup() { m_server.reset(); }

    // The handler answers "use" with an error, "devices" with another op, "status" with the sport,
    // others with nothing. Each row ends in a "get", whose snapshot shows that nothing else came.
    void requests_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QByteArray>("replies"); // "S" stands for the snapshot
        QTest::addColumn<QByteArray>("asked");   // op and request the handler got, per line
        auto row = [](const char* name, const char* sent, const char* replies, const char* asked) {
            QTest::newRow(name) << jsonText(sent) << jsonText(replies) << jsonText(asked);
        };
        row("get in every form", "get\n{'op':'get'}\nget\r\n \tget  \n{'op':'get','ok':false}\n",
            "S\nS\nS\nS\nS\n", "");
        row("blank lines", "\n   \n\t\r\n", "", "");
        row("invalid json", "{op:get}\n{'op':'get'} x\n",
            "{'error':'invalid_json','ok':false}\n{'error':'invalid_json','ok':false}\n", "");
        row("handler's reply",
            "status\n{'op':'status','ok':false}\n{'op':'use','device':'x'}\ndevices\n",
            "{'ok':true,'op':'status','sport':'hockey'}\n"
            "{'ok':true,'op':'status','sport':'hockey'}\n"
            "{'error':'unknown_device','ok':false,'op':'use'}\n"
            "{'devices':[],'ok':true,'op':'devices'}\n",
            "status {}\nstatus {'ok':false,'op':'status'}\n"
            "use {'device':'x','op':'use'}\ndevices {}\n");
        row("other ops", "[1,2]\nGET\n{'device':'x'}\n",
            "{'ok':true,'op':'[1,2]'}\n{'ok':true,'op':'GET'}\n{'ok':true,'op':''}\n",
            "[1,2] {}\nGET {}\n {'device':'x'}\n");
    }
    void requests()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, replies);
        QFETCH(QByteArray, asked);
        QByteArray seen;
        m_server->setHandler([&](const QString& op, const QJsonObject& request) {
            seen +=
                op.toUtf8() + ' ' + QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n';
            return jsonObject(op == "use"       ? jsonText("{'ok':false,'error':'unknown_device'}")
                              : op == "devices" ? jsonText("{'op':'other','devices':[]}")
                              : op == "status"  ? jsonText("{'sport':'hockey'}")
                                                : "{}");
        });
        LineClient client;
        QVERIFY(connectClient(client));
        // "get" answers what the data is now, not what the greeting showed.
        QVERIFY(m_live.apply(jsonObject(jsonText("{'fields':{'clock':'1:00'}}"))));
        client.send(sent + "get\n");
        for (const QByteArray& reply : (replies + "S").split('\n'))
            QCOMPARE(client.readLine(), reply == "S" ? snapshot() : reply);
        QCOMPARE(seen, asked);
    }
    // Without a handler only "get" is answered. A line may come in pieces; a reply goes only to
    // the client that asked.
    void linesInPiecesAndRepliesToTheAsker()
    {
        LineClient asker, other;
        QVERIFY(connectClient(asker));
        QVERIFY(connectClient(other));
        asker.send("status\n");
        QCOMPARE(asker.readLine(), jsonText("{'error':'unavailable','ok':false}"));
        m_server->setHandler([](const QString&, const QJsonObject&) { return QJsonObject(); });
        asker.send("sta");
        other.send("get\n");
        QCOMPARE(other.readLine(), snapshot());
        asker.send("tus\n");
        QCOMPARE(asker.readLine(), jsonText("{'ok':true,'op':'status'}"));
        other.send("get\n");
        QCOMPARE(other.readLine(), snapshot());
    }
    // A line may fill 64 KiB, its line feed included; a client with more pending is dropped.
    void pendingBytesCap()
    {
        LineClient client;
        QVERIFY(connectClient(client));
        const QByteArray head = jsonText("{'op':'get','pad':'");
        client.send(head + QByteArray(65536 - head.size() - 3, 'a') + "\"}\n");
        QCOMPARE(client.readLine(), snapshot());
        client.send(head + QByteArray(65537 - head.size() - 3, 'a') + "\"}\n");
        QVERIFY(client.waitForClose());
        QCOMPARE(client.readLine(0), QByteArray());
        QTRY_COMPARE(m_server->clientCount(), 0);
    }
    // A client that never reads is dropped once 1 MiB waits for it; the twenty others get every
    // change, in order, meanwhile.
    void clientThatNeverReadsIsDropped()
    {
        connect(&m_live, &LiveData::changed, m_server.get(), &HostedServer::broadcast);
        // A plain socket with a small receive buffer that nobody reads.
        const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
        const int small = 4096;
        setsockopt(silent, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_server->serverPort());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        QCOMPARE(::connect(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const auto closeSilent = qScopeGuard([silent] { ::close(silent); });
        std::vector<std::unique_ptr<LineClient>> readers;
        QList<QByteArray> got[20];
        for (int i = 0; i < 20; ++i) {
            readers.push_back(std::make_unique<LineClient>());
            QVERIFY(connectClient(*readers.back()));
        }
        QTRY_COMPARE(m_server->clientCount(), 21);
        const auto drain = [&](int i) {
            while (readers[i]->socket().canReadLine())
                got[i] << readers[i]->socket().readLine();
            return got[i].size();
        };
        const QString pad(16384, QLatin1Char('p'));
        int changes = 0;
        while (m_server->clientCount() == 21 && changes < 2000) {
            QVERIFY(m_live.apply(
                QJsonObject{{"fields", QJsonObject{{"count", changes++}, {"pad", pad}}}}));
            QCoreApplication::processEvents();
            for (int i = 0; i < 20; ++i)
                drain(i);
        }
        QCOMPARE(m_server->clientCount(), 20);
        QVERIFY2(changes < 2000, "the silent client was never dropped");
        for (int i = 0; i < 20; ++i) {
            QTRY_VERIFY_WITH_TIMEOUT(drain(i) == changes, 20000);
            for (int n = 0; n < changes; ++n)
                QCOMPARE(QJsonDocument::fromJson(got[i][n])["fields"]["count"].toString(),
                         QString::number(n));
        }
    }
    void broadcastReachesEveryClientInOrder()
    {
        int builds = 0;
        m_server->setSnapshot([&] {
            ++builds;
            return m_live.toJsonLine();
        });
        m_server->broadcast(); // nobody to tell: nothing is built
        QCOMPARE(builds, 0);
        connect(&m_live, &LiveData::changed, m_server.get(), &HostedServer::broadcast);
        QSignalSpy counts(m_server.get(), &HostedServer::clientsChanged);
        LineClient a, b;
        QVERIFY(connectClient(a));
        QVERIFY(connectClient(b));
        QVERIFY(m_live.apply(jsonObject(jsonText("{'fields':{'home_score':3}}"))));
        const QByteArray first = snapshot();
        QVERIFY(m_live.apply(jsonObject(jsonText("{'fields':{'home_score':4}}"))));
        QCOMPARE(builds, 4); // a greeting each, then once per change
        for (LineClient* client : {&a, &b}) {
            QCOMPARE(client->readLine(), first);
            QCOMPARE(client->readLine(), snapshot());
        }
        b.socket().disconnectFromHost();
        QTRY_COMPARE(counts.count(), 3);
        QCOMPARE(QList<QVariantList>(counts), (QList<QVariantList>{{1}, {2}, {1}}));
        QCOMPARE(m_server->clientCount(), 1);
    }
    // A restart drops the clients before it listens again, whether or not the port is free.
    void restartDropsClientsFirst()
    {
        LineClient client;
        QVERIFY(connectClient(client));
        const quint16 oldPort = m_server->serverPort();
        QObject context;
        QList<QPair<int, bool>> emitted; // count, and whether the server listened at that moment
        connect(m_server.get(), &HostedServer::clientsChanged, &context, [&](int count) {
            emitted.append({count, m_server->isListening()});
        });
        QTcpServer occupant;
        QVERIFY(occupant.listen(QHostAddress::LocalHost, 0));
        QString error;
        QVERIFY(!m_server->start(occupant.serverPort(), false, &error));
        QCOMPARE(emitted, (QList<QPair<int, bool>>{{0, false}}));
        QVERIFY(client.waitForClose());
        const QString prefix = QString("Could not listen on port %1: ").arg(occupant.serverPort());
        QVERIFY2(error.startsWith(prefix) && error.size() > prefix.size(), qPrintable(error));
        QCOMPARE(m_server->lastError(), error);
        QCOMPARE(m_server->serverPort(), quint16(0));
        QVERIFY(!canConnect("127.0.0.1", oldPort));
        const quint16 newPort = freePort();
        QVERIFY(m_server->start(newPort, false));
        QCOMPARE(m_server->lastError(), QString());
        QVERIFY(canConnect("127.0.0.1", newPort));
    }
    void listensOnLoopbackUnlessNetworkAllowed()
    {
        const QString address = nonLoopbackAddress();
        if (address.isEmpty())
            QSKIP("this machine has no non-loopback address");
        QVERIFY(canConnect("127.0.0.1", m_server->serverPort()));
        QVERIFY(!canConnect(address, m_server->serverPort()));
        QVERIFY(m_server->start(0, true));
        QVERIFY(canConnect(address, m_server->serverPort()));
        QVERIFY(canConnect("127.0.0.1", m_server->serverPort()));
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
