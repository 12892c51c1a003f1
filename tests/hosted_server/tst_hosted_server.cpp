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

// The headers that end every HTTP answer.
#define LAST_HEADERS                                                                               \
    "Cache-Control: no-store\r\nAccess-Control-Allow-Origin: *\r\n"                                \
    "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\n"

namespace {

// The next `size` bytes the socket receives; fewer when it closes or nothing comes for 5 s.
QByteArray take(QTcpSocket& socket, qsizetype size)
{
    [[maybe_unused]] const bool arrived = QTest::qWaitFor(
        [&] {
            return socket.bytesAvailable() >= size ||
                   socket.state() != QAbstractSocket::ConnectedState;
        },
        5000);
    return socket.read(size);
}

// A plain socket connected to `port` with a small receive buffer, that nobody reads; -1 when it
// did not connect.
int silentClient(quint16 port)
{
    const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
    const int small = 4096;
    setsockopt(silent, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(silent, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(silent);
        return -1;
    }
    return silent;
}

} // namespace

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
        const int silent = silentClient(m_server->serverPort());
        QVERIFY(silent >= 0);
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
    // What an HTTP client that sends `request` to `host` gets back, up to the server's close.
    QByteArray ask(const QByteArray& request, const QString& host = "127.0.0.1")
    {
        LineClient client;
        if (!client.connectTo(host, m_server->serverPort()))
            return "no connection";
        client.send(request);
        if (!client.waitForClose())
            return "not closed";
        return client.socket().readAll();
    }

    // A connection that opens with a request line is answered as HTTP, once, and closed.
    void httpAnswers_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("answer");
        const QByteArray text = "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\n";
        const QByteArray notFound =
            "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain; charset=utf-8\r\n"
            "Content-Length: 102\r\n" LAST_HEADERS
            "Not found. This server answers /overlay, /events, /snapshot.json, /snapshot.xml and "
            "/fields/NAME.txt.\n";
        QTest::newRow("field") << QByteArray("GET /fields/home_score.txt HTTP/1.1\r\n"
                                             "Host: 127.0.0.1\r\nUser-Agent: t\r\n\r\n")
                               << text + "Content-Length: 1\r\n" LAST_HEADERS "2";
        QTest::newRow("head") << QByteArray("HEAD /fields/home_score.txt HTTP/1.1\r\n\r\n")
                              << text + "Content-Length: 1\r\n" LAST_HEADERS;
        QTest::newRow("escaped name, query, bare line feeds")
            << QByteArray("GET /fields/away%20score.txt?t=5 HTTP/1.0\nHost: x\n\n")
            << text + "Content-Length: 1\r\n" LAST_HEADERS "0";
        QTest::newRow("utf-8") << QByteArray("GET /fields/team.txt HTTP/1.1\r\n\r\n")
                               << text + "Content-Length: 15\r\n" LAST_HEADERS
                                         "Z\xc3\xbcrich & <Co>\x01";
        QTest::newRow("sport") << QByteArray("GET /fields/sport.txt HTTP/1.1\r\n\r\n")
                               << text + "Content-Length: 6\r\n" LAST_HEADERS "hockey";
        QTest::newRow("unknown field")
            << QByteArray("GET /fields/clock.txt HTTP/1.1\r\n\r\n") << notFound;
        QTest::newRow("unknown path") << QByteArray("GET / HTTP/1.1\r\n\r\n") << notFound;
        QTest::newRow("other method")
            << QByteArray("POST /snapshot.json HTTP/1.1\r\nContent-Length: 0\r\n\r\n")
            << QByteArray("HTTP/1.1 405 Method Not Allowed\r\nContent-Type: text/plain; "
                          "charset=utf-8\r\nContent-Length: 37\r\nAllow: GET, HEAD\r\n" LAST_HEADERS
                          "Only GET and HEAD are answered here.\n");
        QTest::newRow("absolute form")
            << QByteArray("GET http://127.0.0.1/snapshot.json HTTP/1.1\r\n\r\n")
            << QByteArray("HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain; charset=utf-8\r\n"
                          "Content-Length: 13\r\n" LAST_HEADERS "Bad request.\n");
        QTest::newRow("xml")
            << QByteArray("GET /snapshot.xml HTTP/1.1\r\n\r\n")
            << QByteArray(
                   "HTTP/1.1 200 OK\r\nContent-Type: application/xml; charset=utf-8\r\n"
                   "Content-Length: 297\r\n" LAST_HEADERS
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<scoreboard><sport>hockey</sport>"
                   "<_x0031_st>1</_x0031_st><_x005F_x0041_>a</_x005F_x0041_>"
                   "<away_x0020_score>0</away_x0020_score><home_score>2</home_score>"
                   "<team>Z\xc3\xbcrich &amp; &lt;Co&gt;</team><x_x003A_y>z</x_x003A_y>"
                   "<_x00E9_quipe>b</_x00E9_quipe>"
                   "</scoreboard>\n");
    }
    void httpAnswers()
    {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, answer);
        QVERIFY(m_live.apply(jsonObject(jsonText("{'fields':{'away score':0,'1st':1,"
                                                 "'_x0041_':'a','x:y':'z','\xc3\xa9quipe':'b',"
                                                 "'team':'Z\xc3\xbcrich & <Co>\\u0001'}}"))));
        QSignalSpy counts(m_server.get(), &HostedServer::clientsChanged);
        QCOMPARE(ask(request), answer);
        QCOMPARE(counts.count(), 0); // a one-off request is no client of the data
    }
    // The JSON document is the very line a line client gets; both come on the same port.
    void snapshotJsonIsTheLine()
    {
        LineClient client;
        QVERIFY(connectClient(client));
        const QByteArray line = snapshot() + "\n";
        QCOMPARE(ask("GET /snapshot.json HTTP/1.1\r\n\r\n"),
                 "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                     QByteArray::number(line.size()) + "\r\n" LAST_HEADERS + line);
        client.send("get\n");
        QCOMPARE(client.readLine() + "\n", line);
    }
    // An event stream gets the snapshot at once, every change, and a comment while quiet; a line
    // client beside it gets the changes and no comment.
    void eventStream()
    {
        QByteArray current = "{\"n\":1}\n";
        m_server->setSnapshot([&] { return current; });
        LineClient lines, events;
        QVERIFY(lines.connectTo("127.0.0.1", m_server->serverPort()));
        QCOMPARE(lines.readLine(), "{\"n\":1}");
        QVERIFY(events.connectTo("127.0.0.1", m_server->serverPort()));
        events.send("GET /events HTTP/1.1\r\nAccept: text/event-stream\r\n\r\n");
        const QByteArray head = "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream; "
                                "charset=utf-8\r\n" LAST_HEADERS "retry: 1000\ndata: {\"n\":1}\n\n";
        QCOMPARE(take(events.socket(), head.size()), head);
        QTRY_COMPARE(m_server->clientCount(), 2);
        current = "{\"n\":2}\n";
        m_server->broadcast();
        QCOMPARE(take(events.socket(), 15), "data: {\"n\":2}\n\n");
        QCOMPARE(lines.readLine(), "{\"n\":2}");
        m_server->setKeepAliveInterval(10);
        QCOMPARE(take(events.socket(), 14), ": keep-alive\n\n");
        m_server->setKeepAliveInterval(60000);
        current = "{\"n\":3}\n";
        m_server->broadcast();
        QCOMPARE(lines.readLine(), "{\"n\":3}");
        events.socket().disconnectFromHost();
        QTRY_COMPARE(m_server->clientCount(), 1);
    }
    // An event stream that is not read is dropped once 1 MiB waits for it, as a line client is.
    void unreadEventStreamIsDropped()
    {
        const int silent = silentClient(m_server->serverPort());
        QVERIFY(silent >= 0);
        const auto closeSilent = qScopeGuard([silent] { ::close(silent); });
        const char request[] = "GET /events HTTP/1.1\r\n\r\n";
        QCOMPARE(::write(silent, request, sizeof request - 1), ssize_t(sizeof request - 1));
        QTRY_COMPARE(m_server->clientCount(), 1);
        const QByteArray big = "{\"pad\":\"" + QByteArray(65536, 'p') + "\"}\n";
        m_server->setSnapshot([&] { return big; });
        int changes = 0;
        while (m_server->clientCount() == 1 && changes < 200) {
            m_server->broadcast();
            ++changes;
            QCoreApplication::processEvents();
        }
        QCOMPARE(m_server->clientCount(), 0);
        QVERIFY2(changes > 16, "dropped before 1 MiB was waiting");
    }
    // The request line and headers may take 8 KiB together; more and the client is dropped
    // unanswered, as is a request line that grows past that without ending.
    void requestHeadCap()
    {
        auto head = [](int size) {
            const QByteArray start = "GET /nowhere HTTP/1.1\r\nX-Pad: ";
            return start + QByteArray(size - start.size() - 4, 'a') + "\r\n\r\n";
        };
        QVERIFY(ask(head(8192)).startsWith("HTTP/1.1 404 Not Found\r\n"));
        QCOMPARE(ask(head(8193)), QByteArray());
        QCOMPARE(ask("GET /" + QByteArray(9000, 'a')), QByteArray());
        QTRY_COMPARE(m_server->clientCount(), 0);
    }
    // Every value of the query string is checked; the template reaches the script only escaped.
    void overlayPage()
    {
        const QByteArray plain = ask("GET /overlay?template={home_score}%20-%20{away_score}"
                                     "&font=Arial&size=64&color=%23ffffff&background=transparent "
                                     "HTTP/1.1\r\n\r\n");
        QVERIFY2(plain.startsWith("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"),
                 plain);
        for (const QByteArray& part :
             {QByteArray("\r\nContent-Security-Policy: default-src 'none'; style-src "
                         "'unsafe-inline'; script-src 'unsafe-inline'; connect-src 'self'\r\n"),
              QByteArray("background: transparent; }"),
              QByteArray("#score { font-family: \"Arial\", sans-serif; font-size: 64px; "
                         "font-weight: normal; color: #ffffff;\n         text-align: left;"),
              QByteArray("var template = \"{home_score} - {away_score}\";"),
              QByteArray("new EventSource(\"/events\")")})
            QVERIFY2(plain.contains(part), part);
        QVERIFY(!plain.contains("http://") && !plain.contains("https://") &&
                !plain.contains("src="));

        const QByteArray hostile =
            ask("GET /overlay?template=%3C/script%3E%3Cb%3E%22%27%5C%E2%80%A8{sport}"
                "&font=Arial%3C/style%3E&size=9;x&color=red;background:url(x)&background=ff0000"
                "&weight=bold&align=right%22 HTTP/1.1\r\n\r\n");
        for (const QByteArray& part :
             {QByteArray("background: #ff0000; }"),
              QByteArray("#score { font-family: sans-serif; font-size: 64px; font-weight: bold; "
                         "color: #ffffff;\n         text-align: left;"),
              QByteArray("var template = "
                         "\"\\u003c\\u002fscript\\u003e\\u003cb\\u003e\\u0022\\u0027\\u005c\\u2028{"
                         "sport}\";")})
            QVERIFY2(hostile.contains(part), part);
        QCOMPARE(hostile.count("</style>"), 1);
        QCOMPARE(hostile.count("</script>"), 1);
    }
    // An HTTP-only server greets nobody and drops a connection that opens with anything else.
    void httpOnly()
    {
        m_server = std::make_unique<HostedServer>(&m_live);
        m_server->setHttpOnly(true);
        m_server->setGreetingDelay(0);
        QVERIFY(m_server->start(0, false));
        LineClient quiet;
        QVERIFY(quiet.connectTo("127.0.0.1", m_server->serverPort()));
        // By the time this is answered a greeting would long have gone out.
        QVERIFY(ask("GET /fields/home_score.txt HTTP/1.1\r\n\r\n").endsWith("\r\n\r\n2"));
        quiet.send("get\n");
        QVERIFY(quiet.waitForClose());
        QCOMPARE(quiet.socket().readAll(), QByteArray());
        QCOMPARE(m_server->clientCount(), 0);
    }
    // HTTP comes through the same listening socket, on the same terms.
    void httpOnLoopbackUnlessNetworkAllowed()
    {
        const QString address = nonLoopbackAddress();
        if (address.isEmpty())
            QSKIP("this machine has no non-loopback address");
        const QByteArray request = "GET /fields/home_score.txt HTTP/1.1\r\n\r\n";
        QCOMPARE(ask(request, address), "no connection");
        QVERIFY(m_server->start(0, true));
        QVERIFY(ask(request, address).endsWith("\r\n\r\n2"));
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
