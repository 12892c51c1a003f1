#include "common/test_support.h"
#include "http_admin_transport.h"
#include "http_link.h"
#include "sim/http_server.h"

#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;
using namespace Qt::StringLiterals;
using sim::HttpRequest;
using sim::HttpResponse;

class tst_HttpLink : public QObject
{
    Q_OBJECT
    sim::HttpServer m_server;
    HttpResponse m_probe; // the answer to the next status probe
    QString local() const { return u"127.0.0.1:%1"_s.arg(m_server.port()); }
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.listen());
        m_server.route("GET", u"/api/status"_s, [this](const HttpRequest&) { return m_probe; });
        m_server.route("POST", u"/login"_s, [](const HttpRequest&) {
            return HttpResponse::json({{"csrf_token", "tok"}})
                .withHeader("Set-Cookie", "session=s1; Path=/");
        });
    }
    void init() { m_probe = HttpResponse::json({}); }
    void address_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("host");
        QTest::addColumn<int>("port");
        const auto row = [](const char* address, const char* host, int port) {
            QTest::newRow(address) << address << host << port;
        };
        row("192.168.1.20:8080", "192.168.1.20", 8080);
        row("10.0.0.5:65535", "10.0.0.5", 65535);
        row("vantorelle-0012.local", "vantorelle-0012.local", 0);
        row("10.0.0.5:0", "10.0.0.5:0", 0);
        row("10.0.0.5:65536", "10.0.0.5:65536", 0);
        row(":8080", ":8080", 0);
        row("fe80::1:8080", "fe80::1:8080", 0);
    }
    void address()
    {
        QFETCH(QString, address);
        HttpLink link(address);
        QTEST(link.host(), "host");
        QTEST(link.port(), "port");
        QCOMPARE(link.kind(), u"lan"_s);
        QVERIFY(link.isRemote() && !link.adminTransport()->isOpen());
    }
    // Any HTTP answer shows that the device is there.
    void probe_data()
    {
        QTest::addColumn<int>("status"); // 0: none comes
        QTest::addColumn<bool>("refused");
        QTest::newRow("an error status") << 500 << false;
        QTest::newRow("connection refused") << 0 << true;
        QTest::newRow("no answer in time") << 0 << false;
    }
    void probe()
    {
        QFETCH(int, status);
        QFETCH(bool, refused);
        m_probe.status = status;
        m_probe.stall = status == 0;
        HttpLink link(refused ? u"127.0.0.1:%1"_s.arg(test::freePort()) : local());
        link.setProbeTimeout(300);
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        link.open();
        QTRY_COMPARE(opened.count() + failed.count(), 1);
        QCOMPARE(link.adminTransport()->isOpen(), status > 0);
        const QVariantList failure = failed.value(0);
        QCOMPARE(failure.value(0).toString() + ": " + failure.value(1).toString(),
                 status > 0 ? u": "_s
                            : u"unreachable: Could not reach 127.0.0.1 on your network. Check the "
                              "address, and that this computer and the device are on the same "
                              "network."_s);
    }
    // A probe's late answer counts for nothing once the link was opened again or closed.
    void lateProbeAnswers()
    {
        HttpLink link(local());
        auto* transport = qobject_cast<HttpAdminTransport*>(link.adminTransport());
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        QSignalSpy received(&m_server, &sim::HttpServer::requestReceived);
        m_probe.delayMs = 100;
        link.open();
        QTRY_COMPARE(received.count(), 1);
        m_probe.stall = true;
        link.setProbeTimeout(400);
        link.open();
        QTRY_COMPARE(failed.count(), 1); // the newer probe, after the older answer came
        QCOMPARE(opened.count(), 0);
        m_probe = HttpResponse::json({});
        link.open();
        QTRY_COMPARE(opened.count(), 1);
        transport->send(R"({"id":1,"method":"login","params":{}})");
        QTRY_COMPARE(transport->cookie(), "session=s1"_ba);
        m_probe.delayMs = 100;
        link.open();
        QTRY_COMPARE(received.count(), 5);
        link.close(); // forgets the session too
        QCOMPARE(transport->cookie() + transport->csrfToken(), QByteArray());
        // A second link probing later is answered after the closed link's late answer.
        m_probe.delayMs = 300;
        HttpLink witness(local());
        QSignalSpy witnessOpened(&witness, &DeviceLink::opened);
        witness.open();
        QTRY_COMPARE(witnessOpened.count(), 1);
        QCOMPARE(opened.count(), 1);
        QVERIFY(!transport->isOpen());
    }
};

QTEST_GUILESS_MAIN(tst_HttpLink)
#include "tst_http_link.moc"
