// A process whose Qt finds no TLS backend, as OBS on Windows: every TLS user fails with one
// sentence, until the backend is found in the plug-in's own folder; then the feed and the portal
// connect through it.
#include "common/test_support.h"
#include "log.h"
#include "plugin_updater.h"
#include "portal_client.h"
#include "sim/feed_certificate.h"
#include "sim/feed_server.h"
#include "sim/portal_server.h"
#include "tls_feed.h"
#include "tls_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QSslKey>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTest>

using namespace vantorelle;

namespace {

const QString NoTls = "This OBS has no TLS support, so Vantorelle cannot reach the cloud or the "
                      "device's secure feed.";

} // namespace

class TestTlsSupport : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QStringList m_log;

private Q_SLOTS:
    void initTestCase()
    {
        // Before anything loads a backend: Qt's own plug-in folder is out of reach.
        QCoreApplication::setLibraryPaths({m_dir.filePath("nothing-here")});
        setLogSink([this](LogLevel level, const QString& line) {
            if (level == LogLevel::Warning)
                m_log.append(line);
        });
    }
    void withoutBackendEveryUserSaysSo()
    {
        QVERIFY(!QSslSocket::supportsSsl());
        QVERIFY(!ensureTlsSupport(m_dir.filePath("empty")));
        QVERIFY(!ensureTlsSupport({}));
        QCOMPARE(m_log, QStringList{NoTls}); // once

        TlsFeed feed(TlsFeedSettings{test::freePort(), 10, 150});
        QSignalSpy connected(&feed, &TlsFeed::connectedChanged);
        feed.start("127.0.0.1", "token");
        QTRY_COMPARE(connected.count(), 1);
        QCOMPARE(connected[0], (QVariantList{false, NoTls}));

        PortalClient portal("https://127.0.0.1:1/");
        PortalResult answer;
        portal.sendCommand("d1", "horn", {}, [&](const PortalResult& r) { answer = r; });
        QTRY_COMPARE(answer.message, NoTls);

        PluginUpdater updater;
        UpdaterConfig config = updater.config();
        config.manifestUrl = "https://127.0.0.1:1/manifest.json";
        updater.setConfig(config);
        updater.check(true);
        QCOMPARE(updater.statusText(), NoTls);
    }
    void backendFromThePluginsFolder()
    {
        const QString plugins = m_dir.filePath("data/qt-plugins");
        QVERIFY(QDir().mkpath(plugins + "/tls"));
        for (const QString& name : QDir(VANTORELLE_QT_PLUGINS "/tls").entryList(QDir::Files))
            QVERIFY(QFile::copy(VANTORELLE_QT_PLUGINS "/tls/" + name, plugins + "/tls/" + name));
        QVERIFY(ensureTlsSupport(plugins));

        // Wine's Schannel cannot serve TLS, so under wine both servers run natively outside.
        const test::ExternalPeers peers = test::externalPeers();
        QVERIFY2(!test::runningUnderWine() || (peers.feedPort && !peers.portalUrl.isEmpty()),
                 "under wine the TLS servers come from scripts/wine-test");
        sim::FeedServer server;
        server.setExpectedToken("token");
        QVERIFY(peers.feedPort || server.start());
        TlsFeed feed(
            TlsFeedSettings{peers.feedPort ? peers.feedPort : server.serverPort(), 10, 150});
        feed.start("127.0.0.1", peers.feedPort ? peers.feedToken : "token");
        QTRY_VERIFY(feed.isAuthenticated());

        const QSslCertificate certificate(QByteArray(sim::kFeedCertificatePem), QSsl::Pem);
        sim::PortalServer cloud;
        QVERIFY(!peers.portalUrl.isEmpty() ||
                cloud.startTls(certificate, QSslKey(QByteArray(sim::kFeedPrivateKeyPem), QSsl::Ec,
                                                    QSsl::Pem, QSsl::PrivateKey)));
        const QString base = peers.portalUrl.isEmpty() ? cloud.baseUrl() : peers.portalUrl;
        QVERIFY(base.startsWith("https://"));
        PortalClient portal(base + "/");
        portal.addTrustedCertificates({certificate});
        PortalResult answer;
        bool answered = false;
        portal.sendCommand("d1", "horn", {}, [&](const PortalResult& r) {
            answer = r;
            answered = true;
        });
        QTRY_VERIFY(answered);
        QVERIFY2(answer.status > 0, qPrintable(answer.message)); // an HTTP answer came back
    }
};

QTEST_GUILESS_MAIN(TestTlsSupport)
#include "tst_tls_support.moc"
