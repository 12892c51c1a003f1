// The update check: version order, manifest rules and texts, and the check's state machine
// against a real HTTP update service on 127.0.0.1.
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "sim/update_server.h"
#include "update/plugin_updater.h"
#include "update/update_manifest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;
using State = PluginUpdater::State;

namespace {

const QString Digest = QString(64, QLatin1Char('a'));

// A manifest offering `version` for this platform; `edit` adjusts it before it is served.
QByteArray manifest(const QString& version, const std::function<void(QJsonObject&)>& edit = {})
{
    QJsonObject package{
        {"url", "https://downloads.example.com/p.zip"}, {"sha256", Digest}, {"size", 100}};
    QJsonObject root{{"schema", 1},
                     {"version", version},
                     {"notes", QJsonArray{"one", "two"}},
                     {"packages", QJsonObject{{platformPackageKey(), package}}}};
    if (edit)
        edit(root);
    return QJsonDocument(root).toJson();
}

void setPackageKey(QJsonObject& root, const QString& key, const QJsonValue& value)
{
    QJsonObject packages = root["packages"].toObject();
    QJsonObject package = packages[platformPackageKey()].toObject();
    package[key] = value;
    packages[platformPackageKey()] = package;
    root["packages"] = packages;
}

} // namespace

class TestPluginUpdater : public QObject
{
    Q_OBJECT

private:
    sim::UpdateServer m_server;
    test::UpdaterSandbox m_sandbox;

    UpdaterConfig config() const { return m_sandbox.config(m_server.manifestUrl()); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void compareVersions_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("order");
        QTest::newRow("rc below release") << "1.0.1-rc1"
                                          << "1.0.1" << -1;
        QTest::newRow("rc of next above") << "1.0.2-rc1"
                                          << "1.0.1" << 1;
        QTest::newRow("two pre-releases equal") << "1.0.0-rc1"
                                                << "1.0.0-rc2" << 0;
        QTest::newRow("numeric not textual") << "1.10.0"
                                             << "1.9.9" << 1;
        QTest::newRow("missing piece is 0") << "1.2"
                                            << "1.2.0" << 0;
        QTest::newRow("leading v") << " V1.2.3 "
                                   << "1.2.3" << 0;
        QTest::newRow("build metadata ignored") << "1.0.0+build.7"
                                                << "1.0.0" << 0;
        QTest::newRow("metadata with dash") << "1.0.0+b-1"
                                            << "1.0.0" << 0;
        QTest::newRow("non-number piece") << "1.x.1"
                                          << "1.0.1" << 0;
        QTest::newRow("overflowing piece is 0") << "99999999999999999999.1"
                                                << "0.1" << 0;
    }

    void compareVersions()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, order);
        QCOMPARE(vantorelle::compareVersions(a, b), order);
        QCOMPARE(vantorelle::compareVersions(b, a), -order);
    }

    void userCheck_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("obsVersion");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("text");
        const QString incomplete = "The update information is incomplete.";
        const QString noVersion = "The update information has no valid version.";
        const QString upToDate = "Vantorelle 1.0.1 is up to date.";
        const int available = State::Available;

        QTest::newRow("pre-release valid") << manifest("1.2.3-beta.1") << "30.2.3" << available
                                           << "Version 1.2.3-beta.1 is available.";
        QTest::newRow("two pieces") << manifest("1.2") << "" << int(State::Failed) << noVersion;
        QTest::newRow("leading v") << manifest("v1.2.3") << "" << int(State::Failed) << noVersion;
        QTest::newRow("version not a string")
            << manifest("", [](QJsonObject& r) { r["version"] = 2; }) << "" << int(State::Failed)
            << noVersion;
        QTest::newRow("rc of running")
            << manifest("1.0.1-rc1") << "" << int(State::UpToDate) << upToDate;
        QTest::newRow("rc of next")
            << manifest("1.0.2-rc1") << "" << available << "Version 1.0.2-rc1 is available.";
        QTest::newRow("same, no packages")
            << manifest("1.0.1", [](QJsonObject& r) { r.remove("packages"); }) << ""
            << int(State::UpToDate) << upToDate;
        QTest::newRow("older, broken package")
            << manifest("0.9.0", [](QJsonObject& r) { setPackageKey(r, "sha256", "x"); }) << ""
            << int(State::UpToDate) << upToDate;
        QTest::newRow("upper-case sha256") << manifest("1.0.2", [](QJsonObject& r) {
            setPackageKey(r, "sha256", Digest.toUpper());
        }) << "" << available << "Version 1.0.2 is available.";
        QTest::newRow("63 digits")
            << manifest("1.0.2",
                        [](QJsonObject& r) { setPackageKey(r, "sha256", Digest.left(63)); })
            << "" << int(State::Failed) << incomplete;
        QTest::newRow("http public host") << manifest("1.0.2", [](QJsonObject& r) {
            setPackageKey(r, "url", "http://example.com/p.zip");
        }) << "" << int(State::Failed) << incomplete;
        QTest::newRow("http localhost") << manifest("1.0.2", [](QJsonObject& r) {
            setPackageKey(r, "url", "http://localhost:1/p.zip");
        }) << "" << available << "Version 1.0.2 is available.";
        QTest::newRow("schema 2") << manifest("1.0.2", [](QJsonObject& r) { r["schema"] = 2; })
                                  << "" << int(State::Failed)
                                  << "This update needs a newer Vantorelle plugin than the one "
                                     "installed. Download the installer from the Vantorelle "
                                     "website.";
        QTest::newRow("schema before version")
            << manifest("junk", [](QJsonObject& r) { r["schema"] = "1"; }) << ""
            << int(State::Failed)
            << "This update needs a newer Vantorelle plugin than the one installed. Download the "
               "installer from the Vantorelle website.";
        QTest::newRow("schema missing")
            << manifest("1.0.2", [](QJsonObject& r) { r.remove("schema"); }) << "" << available
            << "Version 1.0.2 is available.";
        QTest::newRow("min_obs above running")
            << manifest("1.0.2", [](QJsonObject& r) { r["min_obs"] = "31.0.0"; }) << "30.2.3"
            << int(State::Failed)
            << "Version 1.0.2 needs OBS 31.0.0 or newer (this is OBS 30.2.3).";
        QTest::newRow("min_obs, OBS unknown")
            << manifest("1.0.2", [](QJsonObject& r) { r["min_obs"] = "31.0.0"; }) << "" << available
            << "Version 1.0.2 is available.";
        QTest::newRow("other platform only")
            << manifest("1.0.2",
                        [](QJsonObject& r) {
                            r["packages"] = QJsonObject{{"macos-arm64", QJsonObject{{"url", "x"}}}};
                        })
            << "" << int(State::Failed)
            << "Version 1.0.2 is out, but not available for this computer yet.";
        QTest::newRow("not an object") << QByteArray("[1,2]") << "" << int(State::Failed)
                                       << "The update information was not readable.";
        QTest::newRow("not json") << QByteArray("<html>") << "" << int(State::Failed)
                                  << "The update information was not readable.";
    }

    void userCheck()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, obsVersion);
        QFETCH(int, state);
        QFETCH(QString, text);
        m_server.setManifestResponse(sim::HttpResponse::text(body, 200, "application/json"));
        PluginUpdater updater;
        UpdaterConfig settings = config();
        settings.obsVersion = obsVersion;
        updater.setConfig(settings);
        updater.check(true);
        QCOMPARE(updater.state(), State::Checking);
        QCOMPARE(updater.statusText(), "Checking for updates");
        QVERIFY(test::waitForState(updater, {State(state)}));
        QCOMPARE(updater.statusText(), text);
    }

    void checkSendsHeadersAndKeepsManifest()
    {
        m_server.setManifestResponse(sim::HttpResponse::text(
            manifest("1.0.2", [](QJsonObject& r) { r["released"] = "2025-03-01"; })));
        PluginUpdater updater;
        updater.setConfig(config());
        updater.check(true);
        QVERIFY(test::waitForState(updater, {State::Available}));
        const sim::HttpRequest request = m_server.http().requests().constLast();
        QCOMPARE(request.header("User-Agent"), "Vantorelle-OBS/" VANTORELLE_VERSION " (30.2.3)");
        QCOMPARE(request.header("Accept"), "application/json");
        QCOMPARE(updater.manifest().notes, "one\ntwo");
        QCOMPARE(updater.manifest().released, "2025-03-01");
        QCOMPARE(updater.manifest().package.size, 100);
    }

    void failedReplies_data()
    {
        QTest::addColumn<bool>("userInitiated");
        QTest::addColumn<int>("status");
        QTest::newRow("user, server error") << true << 500;
        QTest::newRow("user, not found") << true << 404;
        QTest::newRow("user, no network") << true << 0;
        QTest::newRow("automatic, no network") << false << 0;
        QTest::newRow("automatic, server error") << false << 503;
        QTest::newRow("automatic, unreadable") << false << 200;
    }

    void failedReplies()
    {
        QFETCH(bool, userInitiated);
        QFETCH(int, status);
        UpdaterConfig settings = config();
        if (status == 0)
            settings.manifestUrl =
                QStringLiteral("http://127.0.0.1:%1/m.json").arg(test::freePort());
        m_server.setManifestResponse(sim::HttpResponse::text("nope", status));
        PluginUpdater updater;
        updater.setConfig(settings);
        QSignalSpy changes(&updater, &PluginUpdater::stateChanged);
        updater.check(userInitiated);
        QVERIFY(test::waitForState(updater, {State::Idle, State::Failed}));
        if (!userInitiated) {
            QCOMPARE(updater.state(), State::Idle);
            QCOMPARE(updater.statusText(), QString());
        } else {
            QCOMPARE(updater.state(), State::Failed);
            QCOMPARE(updater.statusText(), "Could not reach the Vantorelle update service. Check "
                                           "your internet connection.");
        }
        QCOMPARE(changes.size(), 2);
        QVERIFY(!updater.isBusy());
    }

    void checkTimesOutThroughItsSetting()
    {
        sim::HttpResponse stalled;
        stalled.stall = true;
        m_server.setManifestResponse(stalled);
        PluginUpdater updater;
        UpdaterConfig settings = config();
        settings.requestTimeoutMs = 200;
        updater.setConfig(settings);
        updater.check(true);
        QVERIFY(test::waitForState(updater, {State::Failed}, 5000));
        QVERIFY(updater.statusText().startsWith("Could not reach"));
    }

    void invalidAddress_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("http, public host") << "http://example.com/manifest.json";
        QTest::newRow("ftp") << "ftp://127.0.0.1/manifest.json";
        QTest::newRow("no host") << "https:manifest.json";
        QTest::newRow("empty") << "";
    }

    void invalidAddress()
    {
        QFETCH(QString, address);
        PluginUpdater updater;
        UpdaterConfig settings = config();
        settings.manifestUrl = address;
        updater.setConfig(settings);
        QSignalSpy changes(&updater, &PluginUpdater::stateChanged);
        updater.check(false);
        QCOMPARE(changes.size(), 0);
        QCOMPARE(updater.state(), State::Idle);
        updater.check(true);
        QCOMPARE(updater.state(), State::Failed);
        QCOMPARE(updater.statusText(), "The update address is not valid.");
    }

    void overlappingChecksAreRefused()
    {
        sim::HttpResponse slow = sim::HttpResponse::text(manifest("1.0.2"));
        slow.delayMs = 200;
        m_server.setManifestResponse(slow);
        const int before = m_server.manifestRequests();
        PluginUpdater updater;
        updater.setConfig(config());
        updater.check(false);
        updater.check(true);
        QVERIFY(test::waitForState(updater, {State::Available}));
        QCOMPARE(m_server.manifestRequests(), before + 1);
    }

    void failedCheckForgetsThePackage()
    {
        m_server.setManifestResponse(sim::HttpResponse::text(manifest("1.0.2")));
        PluginUpdater updater;
        updater.setConfig(config());
        updater.check(true);
        QVERIFY(test::waitForState(updater, {State::Available}));
        m_server.setManifestResponse(sim::HttpResponse::text("broken"));
        updater.check(true);
        QVERIFY(test::waitForState(updater, {State::Failed}));
        QVERIFY(!updater.manifest().package.isValid());
        // A failed check leaves nothing to install.
        QSignalSpy changes(&updater, &PluginUpdater::stateChanged);
        updater.install();
        QCOMPARE(changes.size(), 0);
        QCOMPARE(updater.state(), State::Failed);
    }
};

QTEST_GUILESS_MAIN(TestPluginUpdater)
#include "tst_plugin_updater.moc"
