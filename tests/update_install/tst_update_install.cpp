// Download and installation of an update from a real HTTP update service on 127.0.0.1, unpacked
// by the system's archive tool into a plug-in folder in a temporary directory.
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "sim/update_server.h"
#include "update/plugin_updater.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace vantorelle;
using State = PluginUpdater::State;

class TestUpdateInstall : public QObject
{
    Q_OBJECT

private:
    sim::UpdateServer m_server;
    std::unique_ptr<test::UpdaterSandbox> m_box;
    std::unique_ptr<PluginUpdater> m_updater;
    QByteArray m_package;
    QByteArray m_installed; // digest of the plug-in folder before the update

    QString rootFile(const QString& relative) const
    {
        return QDir(m_box->root()).filePath(relative);
    }

    // Serves the 1.0.2 package (delivered as `delivery` says) under a manifest adjusted by
    // `edit`, and lets the updater find it.
    bool offerUpdate(const std::function<void(QJsonObject&)>& edit = {},
                     sim::HttpResponse delivery = {})
    {
        QJsonObject manifest = m_server.publish("1.0.2", platformPackageKey(), m_package);
        if (edit) {
            QJsonObject packages = manifest["packages"].toObject();
            QJsonObject package = packages[platformPackageKey()].toObject();
            edit(package);
            packages[platformPackageKey()] = package;
            manifest["packages"] = packages;
            m_server.setManifest(manifest);
        }
        if (delivery.body.isNull())
            delivery.body = m_package;
        m_server.setPackageResponse("package.zip", delivery);
        m_updater->check(true);
        return test::waitForState(*m_updater, {State::Available});
    }

    bool installAndWait()
    {
        m_updater->install();
        return test::waitForState(*m_updater, {State::Installed, State::Failed});
    }

    void configure(const std::function<void(UpdaterConfig&)>& edit)
    {
        UpdaterConfig config = m_updater->config();
        edit(config);
        m_updater->setConfig(config);
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        m_box = std::make_unique<test::UpdaterSandbox>();
        m_updater = std::make_unique<PluginUpdater>();
        m_updater->setConfig(m_box->config(m_server.manifestUrl()));
        m_package = m_box->package("1.0.2");
        QVERIFY(!m_package.isEmpty());
        m_installed = test::treeDigest(m_box->root());
    }

    void cleanup()
    {
        m_updater.reset();
        m_box.reset();
    }

    void failedDownload_data()
    {
        QTest::addColumn<int>("sizeDelta");
        QTest::addColumn<bool>("wrongHash");
        QTest::addColumn<int>("status");
        QTest::addColumn<qint64>("dropAfter");
        QTest::addColumn<bool>("stall");
        QTest::addColumn<QString>("text");
        const QString unfinished =
            "The download did not finish. Check your internet connection and try again.";
        QTest::newRow("one byte over the size")
            << -1 << false << 200 << qint64(-1) << false
            << "The download was larger than expected, so it was discarded.";
        QTest::newRow("one byte under the size")
            << 1 << false << 200 << qint64(-1) << false
            << "The download was incomplete, so it was discarded. Try again.";
        QTest::newRow("wrong hash") << 0 << true << 200 << qint64(-1) << false
                                    << "The download did not match its checksum, so it was "
                                       "discarded. Nothing was changed.";
        QTest::newRow("dropped mid-body")
            << 0 << false << 200 << qint64(100) << false << unfinished;
        QTest::newRow("not found") << 0 << false << 404 << qint64(-1) << false << unfinished;
        QTest::newRow("stalled past the time-out")
            << 0 << false << 200 << qint64(-1) << true << unfinished;
    }

    void failedDownload()
    {
        QFETCH(int, sizeDelta);
        QFETCH(bool, wrongHash);
        QFETCH(int, status);
        QFETCH(qint64, dropAfter);
        QFETCH(bool, stall);
        QFETCH(QString, text);
        configure([](UpdaterConfig& c) { c.requestTimeoutMs = 300; });
        sim::HttpResponse delivery;
        delivery.status = status;
        delivery.dropAfterBytes = dropAfter;
        delivery.stall = stall;
        QVERIFY(offerUpdate(
            [&](QJsonObject& p) {
                p["size"] = p["size"].toDouble() + sizeDelta;
                if (wrongHash)
                    p["sha256"] = QString(
                        QCryptographicHash::hash("other", QCryptographicHash::Sha256).toHex());
            },
            delivery));
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->state(), State::Failed);
        QCOMPARE(m_updater->statusText(), text);
        QVERIFY(!m_updater->isBusy());
        QCOMPARE(test::treeDigest(m_box->root()), m_installed);
        QVERIFY(!QFileInfo::exists(m_box->staging() + "/package.zip"));

        // The package is kept: a retry that gets the right bytes installs.
        offerUpdate();
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->state(), State::Installed);
    }

    void progressMovesByWholePercents()
    {
        sim::HttpResponse delivery;
        // The transfer reports progress at most every 100 ms, so the pieces come slower.
        delivery.chunkBytes = qMax<int>(1, m_package.size() / 6);
        delivery.chunkIntervalMs = 150;
        QVERIFY(offerUpdate({}, delivery));
        QStringList texts;
        connect(m_updater.get(), &PluginUpdater::stateChanged, this,
                [&] { texts.append(m_updater->statusText()); });
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->state(), State::Installed);

        static const QRegularExpression progress("^Downloading version 1\\.0\\.2 (\\d+)%$");
        QList<int> percents;
        for (const QString& text : std::as_const(texts)) {
            const QRegularExpressionMatch match = progress.match(text);
            if (match.hasMatch())
                percents.append(match.captured(1).toInt());
        }
        QVERIFY2(percents.size() >= 4, qPrintable(texts.join(" | ")));
        for (qsizetype i = 1; i < percents.size(); ++i)
            QVERIFY2(percents[i] > percents[i - 1], qPrintable(texts.join(" | ")));
        QCOMPARE(percents.constLast(), 100);
        QCOMPARE(texts.first(), "Downloading version 1.0.2");
        QVERIFY(texts.contains("Installing version 1.0.2"));
    }

    void missingSizeSkipsSizeChecks()
    {
        QVERIFY(offerUpdate([](QJsonObject& p) { p.remove("size"); }));
        QCOMPARE(m_updater->manifest().package.size, 0);
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->statusText(),
                 "Version 1.0.2 is installed. Restart OBS to start using it.");
    }

    void installSwapsTheWholeTree()
    {
        QVERIFY(offerUpdate());
        QVERIFY(m_updater->canSelfUpdate());
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->state(), State::Installed);
        QCOMPARE(test::treeDigest(m_box->root()),
                 test::treeDigest(m_box->path("build-1.0.2/vantorelle-obs")));
        QCOMPARE(test::treeDigest(m_box->staging() + "/previous"), m_installed);
        QVERIFY(!QFileInfo::exists(m_box->staging() + "/package.zip"));
        QVERIFY(!QFileInfo::exists(m_box->staging() + "/extracted"));

        // Installed is final: no further check or install reaches the service.
        const int requests = int(m_server.http().requests().size());
        m_updater->check(true);
        m_updater->install();
        QCOMPARE(m_updater->state(), State::Installed);
        QCOMPARE(m_server.http().requests().size(), requests);
    }

    void busyModuleIsMovedAside()
    {
        const QString module = defaultModuleRelativePath();
        configure([&](UpdaterConfig& c) {
            c.isBusy = [&](const QString& p) { return p.endsWith(module); };
        });
        QVERIFY(offerUpdate());
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->statusText(),
                 "Version 1.0.2 is installed. Restart OBS to start using it.");
        QCOMPARE(test::readFile(rootFile(module)), "module 1.0.2");
        QCOMPARE(test::readFile(rootFile(module + ".old")), "module 1.0.1");
        QCOMPARE(test::readFile(rootFile("data/.hidden.old")), "1.0.1");
        QVERIFY(!QFileInfo::exists(m_box->staging() + "/previous"));

        // The next start clears what the swap moved aside, in every folder.
        QCOMPARE(PluginUpdater::removeOldFiles(m_box->root()), 3);
        QCOMPARE(test::treeDigest(m_box->root()),
                 test::treeDigest(m_box->path("build-1.0.2/vantorelle-obs")));
    }

    void busyLeftoverStopsTheFileByFileWay()
    {
        const QString module = defaultModuleRelativePath();
        test::writeFile(rootFile(module + ".old"), "module 1.0.0");
        configure([&](UpdaterConfig& c) {
            c.isBusy = [&](const QString& p) { return p.contains(module); };
        });
        QVERIFY(offerUpdate());
        QVERIFY(installAndWait());
        QCOMPARE(m_updater->state(), State::Failed);
        QCOMPARE(m_updater->statusText(),
                 QString("The update could not be installed (%1 is in use). The current version "
                         "was left in place.")
                     .arg(QDir::toNativeSeparators(module)));
        QCOMPARE(test::readFile(rootFile(module)), "module 1.0.1");
    }

    void notWritable_data()
    {
        QTest::addColumn<QString>("page");
        QTest::addColumn<bool>("parentOnly");
        QTest::addColumn<QString>("where");
        QTest::newRow("root, page set")
            << "https://example.com/obs" << false << "https://example.com/obs";
        QTest::newRow("root, no page") << "" << false << "the Vantorelle website";
        QTest::newRow("parent") << "https://example.com/obs" << true << "https://example.com/obs";
    }

    void notWritable()
    {
        QFETCH(QString, page);
        QFETCH(bool, parentOnly);
        QFETCH(QString, where);
        const QString refused =
            parentOnly ? QFileInfo(m_box->root()).absolutePath() : m_box->root();
        configure([&](UpdaterConfig& c) {
            c.downloadPage = page;
            c.isWritable = [refused](const QString& p) { return QDir::cleanPath(p) != refused; };
        });
        QVERIFY(offerUpdate());
        const int downloads = m_server.packageRequests("package.zip");
        QVERIFY(!m_updater->canSelfUpdate());
        m_updater->install();
        QCOMPARE(m_updater->state(), State::Failed);
        QCOMPARE(m_updater->statusText(),
                 QString("This copy of the plugin was installed for all users, so it cannot update "
                         "itself. Download and run the installer from %1.")
                     .arg(where));
        QCOMPARE(m_server.packageRequests("package.zip"), downloads);
    }

    void missingModuleCannotSelfUpdate()
    {
        QVERIFY(QFile::remove(rootFile(defaultModuleRelativePath())));
        QVERIFY(!m_updater->canSelfUpdate());
        configure([](UpdaterConfig& c) { c.installFolder.clear(); });
        QVERIFY(!m_updater->canSelfUpdate());
    }

    void workUnderWayRefusesCheckAndInstall()
    {
        sim::HttpResponse slow;
        slow.chunkBytes = qMax<int>(1, m_package.size() / 4);
        slow.chunkIntervalMs = 100;
        QVERIFY(offerUpdate({}, slow));
        const int downloads = m_server.packageRequests("package.zip");
        m_updater->install();
        QCOMPARE(m_updater->state(), State::Downloading);
        QTRY_COMPARE(m_server.packageRequests("package.zip"), downloads + 1);
        const int requests = int(m_server.http().requests().size());
        m_updater->check(true);
        m_updater->install();
        QCOMPARE(m_updater->state(), State::Downloading);
        QVERIFY(test::waitForState(*m_updater, {State::Installing, State::Installed}));
        m_updater->check(true);
        QVERIFY(test::waitForState(*m_updater, {State::Installed}));
        QCOMPARE(m_server.http().requests().size(), requests);
    }

    void stagingFolderThatCannotBeMade()
    {
        QVERIFY(QDir().mkpath(m_box->path("config")));
        test::writeFile(m_box->path("config/blocker"), "a file where a folder should go");
        configure(
            [&](UpdaterConfig& c) { c.stagingFolder = m_box->path("config/blocker/update"); });
        QVERIFY(offerUpdate());
        m_updater->install();
        QCOMPARE(m_updater->statusText(),
                 QString("Could not prepare a download folder (%1).")
                     .arg(QDir::toNativeSeparators(m_box->path("config/blocker/update"))));
    }
};

QTEST_GUILESS_MAIN(TestUpdateInstall)
#include "tst_update_install.moc"
