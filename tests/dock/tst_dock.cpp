// The dock against a local portal, feed and update service, as a streamer would use it.

#include "admin/manage_dialog.h"
#include "common/app_support.h"
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "core/app.h"
#include "live/hosted_server.h"
#include "sim/feed_server.h"
#include "sim/portal_server.h"
#include "sim/update_server.h"
#include "ui/dock.h"
#include "ui/scene_actions.h"
#include "ui/setup_wizard.h"

#include <QCheckBox>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");
const QString kTotpEmail = QStringLiteral("ref@example.com");
const QString kTotpCode = QStringLiteral("123456");
const QString kErrorStyle = QStringLiteral("color: #d9534f;");

QJsonObject lanEntry(const QString& host, const QString& token, const QString& name)
{
    return {{"host", host}, {"token", token}, {"name", name}};
}

// Scene actions as the module would give them, counting what the dock asks for.
class RecordingSceneActions : public SceneActions
{
public:
    bool canAddGraphics(QString* reason) const override
    {
        *reason = QStringLiteral("This OBS has no browser source, so graphics cannot be added.");
        return false;
    }
    SceneActionResult addScoreText() override
    {
        ++textsAdded;
        return {true, QStringLiteral("Added \"Vantorelle Score\" to the scene.")};
    }
    SceneActionResult addGraphics() override { return {}; }

    int textsAdded = 0;
};

} // namespace

class TestDock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void signIn_data();
    void signIn();
    void signOutIsImmediate();
    void deviceListIncludesLocalOnlyDevices();
    void routeChoice_data();
    void routeChoice();
    void localDeviceGoesLive();
    void serverPortChange();
    void updateBanner_data();
    void updateBanner();
    void sceneSection();
    void setupWizardOpens();

private:
    void makeDock(QJsonObject settings = {}, SceneActions* actions = nullptr);
    void signInThroughPortal();
    template <typename T> T* widget(const char* name) const
    {
        T* found = m_dock->findChild<T*>(QLatin1String(name));
        if (!found)
            qFatal("the dock has no %s", name);
        return found;
    }
    QStringList deviceLabels() const;
    void choose(const char* comboName, const QString& value);

    QTemporaryDir m_dir;
    std::unique_ptr<sim::PortalServer> m_portal;
    std::unique_ptr<sim::FeedServer> m_feed;
    std::unique_ptr<App> m_app;
    std::unique_ptr<Dock> m_dock;
};

void TestDock::init()
{
    QVERIFY(m_dir.isValid());
    QFile::remove(m_dir.filePath("session.json"));
    m_portal = std::make_unique<sim::PortalServer>();
    QVERIFY(m_portal->start());
    m_portal->addAccount(kEmail, kPassword);
    m_portal->addAccount(kTotpEmail, kPassword, QStringLiteral("owner"), kTotpCode);
    m_portal->addDevice(kEmail, {QStringLiteral("court-1"), QStringLiteral("Court 1")});
    m_portal->addDevice(kEmail, {QStringLiteral("dev-2"), QString()});
    m_feed = std::make_unique<sim::FeedServer>();
    QVERIFY(m_feed->start());
    m_feed->setExpectedToken(QStringLiteral("lan-token"));
}

void TestDock::cleanup()
{
    // The dock shows the application object, so it goes first.
    m_dock.reset();
    m_app.reset();
    m_portal.reset();
    m_feed.reset();
}

void TestDock::makeDock(QJsonObject settings, SceneActions* actions)
{
    // Both account devices are also on the network, one without its token; "garage" is only
    // there, "shed" only half set up.
    settings.insert("lan", QJsonObject{{"court-1", lanEntry("127.0.0.1", "lan-token", "Court 1")},
                                       {"dev-2", lanEntry("127.0.0.1", "", "")},
                                       {"garage", lanEntry("127.0.0.1", "lan-token", "Garage")},
                                       {"shed", lanEntry("", "lan-token", "Shed")}});
    AppEnvironment env = testAppEnvironment(m_dir.path(), m_portal->baseUrl(), settings);
    env.sources.feed.port = m_feed->serverPort();
    m_app = std::make_unique<App>(env);
    m_dock = std::make_unique<Dock>(m_app.get(), actions);
    m_dock->show();
}

void TestDock::signInThroughPortal()
{
    m_app->portal().signIn(kEmail, kPassword, [](const PortalResult&) {});
    QTRY_VERIFY(m_app->isSignedIn());
    QTRY_COMPARE(m_app->devices().size(), 2);
}

QStringList TestDock::deviceLabels() const
{
    auto* list = widget<QComboBox>("deviceList");
    QStringList labels;
    for (int i = 0; i < list->count(); ++i) {
        if (!list->itemData(i).toString().isEmpty())
            labels << list->itemText(i);
    }
    return labels;
}

// Picks the entry whose data is `value`, as a click in the list would.
void TestDock::choose(const char* comboName, const QString& value)
{
    auto* combo = widget<QComboBox>(comboName);
    const int index = combo->findData(value);
    QVERIFY2(index >= 0, qPrintable(value));
    combo->setCurrentIndex(index);
    Q_EMIT combo->activated(index);
}

void TestDock::signIn_data()
{
    QTest::addColumn<QString>("email");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("code"); // empty: no second step
    QTest::addColumn<QString>("error");

    QTest::newRow("password") << kEmail << kPassword << QString() << QString();
    QTest::newRow("password and code") << kTotpEmail << kPassword << kTotpCode << QString();
    QTest::newRow("wrong password")
        << kEmail << "nope" << QString()
        << "That email and password did not match. Check them and try again.";
    QTest::newRow("wrong code")
        << kTotpEmail << kPassword << "654321"
        << "That code was not accepted. Enter the current 6-digit code from your authenticator "
           "app.";
}

void TestDock::signIn()
{
    QFETCH(QString, email);
    QFETCH(QString, password);
    QFETCH(QString, code);
    QFETCH(QString, error);
    makeDock();
    QVERIFY(widget<QLineEdit>("email")->isVisible());
    QTest::keyClicks(widget<QLineEdit>("email"), email);
    QTest::keyClicks(widget<QLineEdit>("password"), password);
    widget<QPushButton>("signIn")->click();
    if (!code.isEmpty()) {
        QTRY_VERIFY(widget<QLineEdit>("code")->isVisible());
        QVERIFY(!m_app->isSignedIn());
        QTest::keyClicks(widget<QLineEdit>("code"), code);
        widget<QPushButton>("verifyCode")->click();
    }
    auto* failure = widget<QLabel>("accountError");
    if (error.isEmpty()) {
        QTRY_VERIFY(m_app->isSignedIn());
        QVERIFY(widget<QLabel>("accountEmail")->isVisible());
        QCOMPARE(widget<QLabel>("accountEmail")->text(), "Signed in as " + email);
        QVERIFY(!failure->isVisible());
    } else {
        QTRY_COMPARE(failure->text(), error);
        QCOMPARE(failure->styleSheet(), kErrorStyle);
        QVERIFY(failure->isVisible());
        QVERIFY(!m_app->isSignedIn());
    }
}

void TestDock::signOutIsImmediate()
{
    makeDock();
    signInThroughPortal();
    QTRY_VERIFY(widget<QPushButton>("signOut")->isVisible());
    QVERIFY(QFile::exists(m_dir.filePath("session.json")));

    widget<QPushButton>("signOut")->click();
    QVERIFY(!m_app->isSignedIn());
    QVERIFY(!QFile::exists(m_dir.filePath("session.json")));
    QVERIFY(widget<QLineEdit>("email")->isVisible());
    // The portal hears of it too, though nobody waits for its answer.
    QTRY_VERIFY(std::any_of(
        m_portal->http().requests().cbegin(), m_portal->http().requests().cend(),
        [](const sim::HttpRequest& r) { return r.method == "POST" && r.path == "/auth/logout"; }));
}

void TestDock::deviceListIncludesLocalOnlyDevices()
{
    makeDock();
    // Signed out, the devices on the local network are still there to choose.
    QCOMPARE(deviceLabels(), (QStringList{"Court 1 (court-1)", "Garage (garage)"}));
    QVERIFY(widget<QComboBox>("deviceList")->itemText(0).startsWith("Choose"));

    signInThroughPortal();
    QTRY_COMPARE(deviceLabels(), (QStringList{"Court 1 (court-1)", "dev-2", "Garage (garage)"}));
    QVERIFY(widget<QLabel>("devicesError")->isHidden());
    QVERIFY(widget<QWidget>("relayPanel")->isHidden());

    m_portal->fail("/devices", 502);
    m_app->refreshDevices();
    QTRY_COMPARE(widget<QLabel>("devicesError")->text(),
                 "The Vantorelle service could not reach the live data feed. Try again shortly.");
    QCOMPARE(widget<QLabel>("devicesError")->styleSheet(), kErrorStyle);
}

void TestDock::routeChoice_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QStringList>("routes"); // offered, in order
    QTest::addColumn<QString>("route");      // chosen afterwards
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("manageable");

    const int cloud = int(SourceManager::Mode::Cloud);
    const int network = int(SourceManager::Mode::Network);
    QTest::newRow("account device on the network")
        << "court-1" << QStringList{"cloud", "lan"} << "lan" << network << true;
    QTest::newRow("back to the cloud")
        << "court-1" << QStringList{"cloud", "lan"} << "cloud" << cloud << true;
    QTest::newRow("entry without token")
        << "dev-2" << QStringList{"cloud"} << "cloud" << cloud << true;
    QTest::newRow("local only") << "garage" << QStringList{"lan"} << "lan" << network << false;
}

void TestDock::routeChoice()
{
    QFETCH(QString, device);
    QFETCH(QStringList, routes);
    QFETCH(QString, route);
    QFETCH(int, mode);
    QFETCH(bool, manageable);
    // Every device starts on the other route than the one chosen, so a choice has to happen.
    makeDock({{"routes", QJsonObject{{"court-1", route == "lan" ? "cloud" : "lan"}}}});
    signInThroughPortal();

    choose("deviceList", device);
    QCOMPARE(m_app->settings().selectedDevice(), device);
    auto* routeChoice = widget<QComboBox>("routeChoice");
    QStringList offered;
    for (int i = 0; i < routeChoice->count(); ++i)
        offered << routeChoice->itemData(i).toString();
    QCOMPARE(offered, routes);
    QCOMPARE(routeChoice->isEnabled(), routes.size() > 1);

    if (routes.size() > 1)
        choose("routeChoice", route);
    QCOMPARE(m_app->settings().route(device), route);
    QCOMPARE(int(m_app->sourceManager()->mode()), mode);
    QCOMPARE(widget<QPushButton>("manageDevice")->isVisible(), manageable);
    if (manageable) {
        widget<QPushButton>("manageDevice")->click();
        auto* dialog = m_dock->findChild<ManageDialog*>();
        QVERIFY(dialog);
        QCOMPARE(dialog->windowTitle(), "Manage " + device);
    }
}

void TestDock::localDeviceGoesLive()
{
    makeDock();
    auto* status = widget<QLabel>("liveStatus");
    QCOMPARE(status->text(), "Choose a device to see live scores.");
    QVERIFY(!widget<QLabel>("liveIndicator")->isVisible());

    choose("deviceList", "garage");
    QCOMPARE(status->text(), "Connecting to Garage on your network");
    QTRY_COMPARE(m_feed->authenticatedCount(), 1);
    m_feed->broadcast(QJsonDocument::fromJson(R"({"type":"state","sport":"hockey",)"
                                              R"("fields":{"home_score":2}})")
                          .object());
    QTRY_COMPARE(status->text(), "Live from Garage over your network");
    QVERIFY(widget<QLabel>("liveIndicator")->isVisible());
    QVERIFY(!m_app->isSignedIn());
}

void TestDock::serverPortChange()
{
    const quint16 first = freePort();
    makeDock({{"server_enabled", true}, {"server_port", first}});
    auto* state = widget<QLabel>("serverState");
    QCOMPARE(state->text(), QStringLiteral("Listening on port %1, 0 clients").arg(first));
    LineClient client;
    QVERIFY(client.connectTo("127.0.0.1", first));
    QTRY_COMPARE(state->text(), QStringLiteral("Listening on port %1, 1 client").arg(first));

    QTcpServer holder;
    QVERIFY(holder.listen(QHostAddress::LocalHost));
    widget<QSpinBox>("serverPort")->setValue(holder.serverPort());
    QCOMPARE(m_app->settings().serverPort(), int(holder.serverPort()));
    QVERIFY(!m_app->server()->isListening());
    QVERIFY2(state->text().startsWith(
                 QStringLiteral("Could not listen on port %1: ").arg(holder.serverPort())),
             qPrintable(state->text()));
    QCOMPARE(state->styleSheet(), kErrorStyle);

    widget<QCheckBox>("serverEnabled")->setChecked(false);
    QVERIFY(!m_app->settings().serverEnabled());
    QCOMPARE(state->text(), "Not running");
    QVERIFY(!widget<QSpinBox>("serverPort")->isEnabled());
}

void TestDock::updateBanner_data()
{
    QTest::addColumn<QString>("version"); // published; empty: the service fails
    QTest::addColumn<bool>("selfUpdate");
    QTest::addColumn<QString>("banner");
    QTest::addColumn<QString>("details");
    QTest::addColumn<bool>("install");
    QTest::addColumn<bool>("link");

    const QString available = QStringLiteral("Version 1.2.0 is available.");
    const QString details = QStringLiteral("Version 1.2.0, released 2026-11-02\nFaster\nFixes");
    QTest::newRow("up to date") << "1.0.1" << true << "Vantorelle 1.0.1 is up to date." << QString()
                                << false << false;
    QTest::newRow("available") << "1.2.0" << true << available << details << true << false;
    QTest::newRow("available, installed for all users")
        << "1.2.0" << false << available << details << false << true;
    QTest::newRow("service fails")
        << QString() << true
        << "Could not reach the Vantorelle update service. Check your internet connection."
        << QString() << false << false;
}

void TestDock::updateBanner()
{
    QFETCH(QString, version);
    QFETCH(bool, selfUpdate);
    QFETCH(QString, banner);
    QFETCH(QString, details);
    QFETCH(bool, install);
    QFETCH(bool, link);
    sim::UpdateServer service;
    QVERIFY(service.start());
    UpdaterSandbox sandbox;
    if (version.isEmpty()) {
        service.setManifestResponse(sim::HttpResponse::text("down", 500));
    } else {
        QJsonObject manifest = service.publish(version, platformPackageKey(), "package");
        manifest.insert("released", "2026-11-02");
        manifest.insert("notes", QJsonArray{"Faster", "Fixes"});
        service.setManifest(manifest);
    }
    makeDock();
    UpdaterConfig config = sandbox.config(service.manifestUrl());
    if (!selfUpdate)
        config.installFolder.clear();
    m_app->updater().setConfig(config);
    QCOMPARE(widget<QLabel>("lastUpdateCheck")->text(), "Not checked yet");

    widget<QPushButton>("checkUpdates")->click();
    QCOMPARE(widget<QLabel>("updateBanner")->text(), "Checking for updates");
    QVERIFY(!widget<QPushButton>("checkUpdates")->isEnabled());
    QTRY_COMPARE(widget<QLabel>("updateBanner")->text(), banner);
    QCOMPARE(widget<QLabel>("updateBanner")->styleSheet().isEmpty(), !version.isEmpty());
    QCOMPARE(widget<QLabel>("updateDetails")->text(), details);
    QCOMPARE(widget<QPushButton>("installUpdate")->isVisible(), install);
    QCOMPARE(widget<QLabel>("downloadLink")->isVisible(), link);
    QVERIFY(widget<QPushButton>("checkUpdates")->isEnabled());
    QCOMPARE(widget<QLabel>("lastUpdateCheck")->text().startsWith("Last checked"),
             !version.isEmpty());

    widget<QCheckBox>("autoCheckUpdates")->setChecked(true);
    QVERIFY(m_app->settings().autoCheckUpdates());
}

void TestDock::sceneSection()
{
    makeDock();
    QVERIFY(!m_dock->findChild<QWidget*>("scenePanel"));
    m_dock.reset();
    m_app.reset();

    RecordingSceneActions actions;
    makeDock({}, &actions);
    QVERIFY(!widget<QPushButton>("addGraphics")->isEnabled());
    QCOMPARE(widget<QLabel>("graphicsUnavailable")->text(),
             "This OBS has no browser source, so graphics cannot be added.");
    widget<QPushButton>("addScoreText")->click();
    QCOMPARE(actions.textsAdded, 1);
    QCOMPARE(widget<QLabel>("sceneResult")->text(), "Added \"Vantorelle Score\" to the scene.");
    m_dock.reset(); // before the scene actions go
}

void TestDock::setupWizardOpens()
{
    makeDock();
    widget<QPushButton>("setupDevice")->click();
    auto* wizard = m_dock->findChild<SetupWizard*>();
    QVERIFY(wizard);
    QVERIFY(wizard->isVisible());
    wizard->close();
    QTRY_VERIFY(!m_dock->findChild<SetupWizard*>());
    // Only a device followed through a session can be managed from here.
    QVERIFY(widget<QPushButton>("manageConnected")->isHidden());
}

QTEST_MAIN(TestDock)
#include "tst_dock.moc"
