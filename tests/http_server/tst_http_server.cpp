// The simulators' HTTP server, driven by Qt's own HTTP client and by a raw socket where the
// bytes on the wire matter.
#include "common/test_support.h"
#include "sim/http_server.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>

using namespace vantorelle;
using sim::HttpRequest;
using sim::HttpResponse;

namespace {

struct Answer
{
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    int status = 0;
    QByteArray body;
};

// Sends raw bytes and returns everything the server wrote until it closed or went quiet. The
// server shares this thread, so the waits keep the event loop running.
QByteArray exchange(quint16 port, const QByteArray& bytes, int quietMs = 300)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::ConnectedState; }, 3000))
        return {};
    socket.write(bytes);
    QByteArray received;
    for (;;) {
        const qsizetype before = received.size();
        (void)QTest::qWaitFor(
            [&] {
                return socket.bytesAvailable() > 0 ||
                       socket.state() != QAbstractSocket::ConnectedState;
            },
            quietMs);
        received += socket.readAll();
        if (received.size() == before)
            return received;
    }
}

} // namespace

class TestHttpServer : public QObject
{
    Q_OBJECT

private:
    sim::HttpServer m_server;
    QNetworkAccessManager m_network;

    Answer fetch(const QByteArray& method, const QString& path, const QByteArray& body = {})
    {
        QNetworkRequest request(m_server.url(path));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "text/plain");
        request.setTransferTimeout(3000);
        QNetworkReply* reply = m_network.sendCustomRequest(request, method, body);
        QSignalSpy finished(reply, &QNetworkReply::finished);
        finished.wait(5000);
        Answer answer{reply->error(),
                      reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                      reply->readAll()};
        reply->deleteLater();
        return answer;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.listen());
        m_server.route("POST", "/echo", [](const HttpRequest& r) {
            return HttpResponse::text(r.method + ' ' + r.path.toUtf8() + ' ' +
                                      r.query.queryItemValue("q").toUtf8() + ' ' + r.body)
                .withHeader("X-Seen", r.header("content-type"));
        });
        m_server.route("GET", "/teapot", [](const HttpRequest&) {
            return HttpResponse::json({{"short", true}}, 418);
        });
    }

    void routesMethodPathQueryAndBody()
    {
        const Answer answer = fetch("POST", "/echo?q=a%20b", "payload");
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.body, "POST /echo a b payload");
        QCOMPARE(m_server.requests().constLast().header("CONTENT-TYPE"), "text/plain");
    }

    void unknownRoutes_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("status");
        QTest::newRow("unknown path") << QByteArray("GET") << "/nothing" << 404;
        QTest::newRow("other method") << QByteArray("GET") << "/echo" << 405;
        QTest::newRow("custom status") << QByteArray("GET") << "/teapot" << 418;
    }

    void unknownRoutes()
    {
        QFETCH(QByteArray, method);
        QFETCH(QString, path);
        QFETCH(int, status);
        QCOMPARE(fetch(method, path).status, status);
    }

    void keepsConnectionsAlive()
    {
        const QByteArray request =
            "POST /echo?q=1 HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\nhi";
        const QByteArray wire = exchange(m_server.port(), request + request);
        QCOMPARE(wire.count("HTTP/1.1 200 OK\r\n"), 2);
        QVERIFY(wire.endsWith("POST /echo 1 hi"));
        QVERIFY(!wire.contains("Connection: close"));
    }

    void refusesBrokenRequests_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("statusLine");
        QTest::newRow("garbage") << QByteArray("hello\r\n\r\n") << QByteArray("HTTP/1.1 400 ");
        QTest::newRow("bad length") << QByteArray("GET / HTTP/1.1\r\nContent-Length: x\r\n\r\n")
                                    << QByteArray("HTTP/1.1 400 ");
        QTest::newRow("chunked body")
            << QByteArray("POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")
            << QByteArray("HTTP/1.1 501 ");
        QTest::newRow("huge body")
            << QByteArray("POST /echo HTTP/1.1\r\nContent-Length: 999999999\r\n\r\n")
            << QByteArray("HTTP/1.1 413 ");
        QTest::newRow("huge head") << QByteArray("GET / HTTP/1.1\r\nX: " + QByteArray(70000, 'a'))
                                   << QByteArray("HTTP/1.1 431 ");
    }

    void refusesBrokenRequests()
    {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, statusLine);
        const QByteArray wire = exchange(m_server.port(), request);
        QVERIFY2(wire.startsWith(statusLine), wire.left(40).constData());
        QVERIFY(wire.contains("Connection: close"));
    }

    void lengthHooks_data()
    {
        QTest::addColumn<qint64>("announced");
        QTest::addColumn<qint64>("dropAfter");
        QTest::addColumn<QByteArray>("expectedBody");
        QTest::addColumn<bool>("clientFails");
        QTest::newRow("fewer than announced") << qint64(20) << qint64(-1) << QByteArray() << true;
        QTest::newRow("dropped mid-body") << qint64(-1) << qint64(4) << QByteArray() << true;
        QTest::newRow("more than announced")
            << qint64(4) << qint64(-1) << QByteArray("0123") << false;
    }

    void lengthHooks()
    {
        QFETCH(qint64, announced);
        QFETCH(qint64, dropAfter);
        QFETCH(QByteArray, expectedBody);
        QFETCH(bool, clientFails);
        HttpResponse response = HttpResponse::text("0123456789");
        response.announcedLength = announced;
        response.dropAfterBytes = dropAfter;
        response.chunkBytes = 3;
        response.chunkIntervalMs = 5;
        m_server.route("GET", "/faulty", [response](const HttpRequest&) { return response; });
        const Answer answer = fetch("GET", "/faulty");
        QCOMPARE(answer.error != QNetworkReply::NoError, clientFails);
        if (!clientFails)
            QCOMPARE(answer.body, expectedBody);
    }

    void stallsUntilTheClientGivesUp()
    {
        HttpResponse response;
        response.stall = true;
        m_server.route("GET", "/stall", [response](const HttpRequest&) { return response; });
        QNetworkRequest request(m_server.url("/stall"));
        request.setTransferTimeout(200);
        QNetworkReply* reply = m_network.get(request);
        QSignalSpy finished(reply, &QNetworkReply::finished);
        QVERIFY(finished.wait(5000));
        QCOMPARE(reply->error(), QNetworkReply::OperationCanceledError);
        reply->deleteLater();
    }
};

QTEST_GUILESS_MAIN(TestHttpServer)
#include "tst_http_server.moc"
