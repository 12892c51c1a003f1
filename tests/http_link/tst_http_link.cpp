// The network link against a real HTTP server: address parsing, the status probe, and probe
// answers that arrive after the link has moved on.
#include "admin/http_admin_transport.h"
#include "admin/rpc_client.h"
#include "common/test_support.h"
#include "links/http_link.h"
#include "sim/http_server.h"

#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;
using namespace Qt::StringLiterals;
using sim::HttpRequest;
using sim::HttpResponse;

namespace {

const QString kUnreachable = u"Could not reach 127.0.0.1 on your network. Check the address, and "
                             "that this computer and the device are on the same network."_s;

HttpAdminTransport* transportOf(HttpLink& link)
{
    return qobject_cast<HttpAdminTransport*>(link.adminTransport());
}

} // namespace

class tst_HttpLink : public QObject
{
    Q_OBJECT

    sim::HttpServer m_server;
    int m_probeDelayMs = 0;
    bool m_stallProbe = false;
    int m_probeStatus = 200;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.listen());
        m_server.route("GET", u"/api/status"_s, [this](const HttpRequest&) {
            HttpResponse response = HttpResponse::json({{"name", "Rink 2"}}, m_probeStatus);
            response.delayMs = m_probeDelayMs;
            response.stall = m_stallProbe;
            return response;
        });
        m_server.route("POST", u"/login"_s, [](const HttpRequest&) {
            return HttpResponse::json({{"csrf_token", "tok"}})
                .withHeader("Set-Cookie", "session=s1; Path=/");
        });
    }

    void init()
    {
        m_probeDelayMs = 0;
        m_stallProbe = false;
        m_probeStatus = 200;
    }

    void address_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("host");
        QTest::addColumn<int>("port");
        QTest::newRow("host and port") << "192.168.1.20:8080"
                                       << "192.168.1.20" << 8080;
        QTest::newRow("no port") << "vantorelle-0012.local"
                                 << "vantorelle-0012.local" << 0;
        QTest::newRow("port 0") << "10.0.0.5:0"
                                << "10.0.0.5:0" << 0;
        QTest::newRow("port 65536") << "10.0.0.5:65536"
                                    << "10.0.0.5:65536" << 0;
        QTest::newRow("not a number") << "10.0.0.5:http"
                                      << "10.0.0.5:http" << 0;
        QTest::newRow("colon first") << ":8080"
                                     << ":8080" << 0;
        QTest::newRow("ipv6") << "fe80::1:8080"
                              << "fe80::1:8080" << 0;
    }

    void address()
    {
        QFETCH(QString, address);
        HttpLink link(address);
        QTEST(link.host(), "host");
        QTEST(link.port(), "port");
        QCOMPARE(transportOf(link)->host(), link.host());
        QCOMPARE(transportOf(link)->port(), link.port());
        QCOMPARE(link.kind(), u"lan"_s);
        QVERIFY(link.isRemote());
        QVERIFY(!link.adminTransport()->isOpen());
    }

    void anyHttpAnswerOpens_data()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("200") << 200;
        QTest::newRow("404") << 404;
        QTest::newRow("500") << 500;
    }

    void anyHttpAnswerOpens()
    {
        QFETCH(int, status);
        m_probeStatus = status;
        HttpLink link(u"127.0.0.1:%1"_s.arg(m_server.port()));
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        link.open();
        QTRY_COMPARE(opened.count(), 1);
        QCOMPARE(opened.first().first().toJsonObject(), QJsonObject());
        QCOMPARE(failed.count(), 0);
        QVERIFY(link.adminTransport()->isOpen());
    }

    void noHttpAnswerFails_data()
    {
        QTest::addColumn<bool>("refused");
        QTest::newRow("connection refused") << true;
        QTest::newRow("no answer in time") << false;
    }

    void noHttpAnswerFails()
    {
        QFETCH(bool, refused);
        m_stallProbe = true;
        const quint16 port = refused ? test::freePort() : m_server.port();
        HttpLink link(u"127.0.0.1:%1"_s.arg(port));
        link.setProbeTimeout(300);
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        link.open();
        QTRY_COMPARE(failed.count(), 1);
        QCOMPARE(failed.first().at(0).toString(), u"unreachable"_s);
        QCOMPARE(failed.first().at(1).toString(), kUnreachable);
        QCOMPARE(opened.count(), 0);
        QVERIFY(!link.adminTransport()->isOpen());
    }

    // The first probe's late answer must not open a link that was opened again since.
    void lateAnswerAfterNewerOpen()
    {
        HttpLink link(u"127.0.0.1:%1"_s.arg(m_server.port()));
        link.setProbeTimeout(1500);
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        QSignalSpy received(&m_server, &sim::HttpServer::requestReceived);
        m_probeDelayMs = 200;
        link.open();
        QTRY_COMPARE(received.count(), 1);
        m_stallProbe = true;
        link.open();
        QTRY_COMPARE(failed.count(), 1); // the newer probe, after the older answer came
        QCOMPARE(opened.count(), 0);
    }

    void closeForgetsSessionAndLateAnswer()
    {
        HttpLink link(u"127.0.0.1:%1"_s.arg(m_server.port()));
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy received(&m_server, &sim::HttpServer::requestReceived);
        link.open();
        QTRY_COMPARE(opened.count(), 1);
        RpcClient client(link.adminTransport());
        bool signedIn = false;
        client.call(u"login"_s, {{"password", "admin"}},
                    [&signedIn](const RpcResult& result) { signedIn = result.ok; });
        QTRY_VERIFY(signedIn);
        QCOMPARE(transportOf(link)->cookie(), "session=s1"_ba);

        m_probeDelayMs = 200;
        received.clear();
        link.open();
        QTRY_COMPARE(received.count(), 1);
        link.close();
        QVERIFY(!link.adminTransport()->isOpen());
        QCOMPARE(transportOf(link)->cookie(), QByteArray());
        QCOMPARE(transportOf(link)->csrfToken(), QByteArray());
        QVERIFY(!opened.wait(800)); // the delayed answer arrives and is ignored
        QVERIFY(!link.adminTransport()->isOpen());
    }
};

QTEST_GUILESS_MAIN(tst_HttpLink)
#include "tst_http_link.moc"
