// The dock and the windows it opens (the account's manage dialog, the setup wizard and the device
// manager), against a local portal and update service and simulated devices.

#include "ble_helper_bridge.h"
#include "common/app_support.h"
#include "common/device_bench.h"
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "device_manager.h"
#include "devices_window.h"
#include "dock.h"
#include "manage_dialog.h"
#include "scene_actions.h"
#include "setup_wizard.h"
#include "sim/lan_device.h"
#include "sim/portal_server.h"
#include "sim/update_server.h"
#include "sim/usb_device.h"

#include <QPointer>
#include <QRadioButton>
#include <QTabWidget>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QTreeWidget>

using namespace vantorelle;
using namespace vantorelle::test;

static const QString kEmail = QStringLiteral("coach@example.com");
static const QString kPassword = QStringLiteral("hunter22");

class TestDock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        QFile::remove(m_dir.filePath("session.json"));
        m_portal = std::make_unique<sim::PortalServer>();
        QVERIFY(m_portal->start());
        m_portal->addAccount(kEmail, kPassword);
        m_portal->addAccount("ref@example.com", kPassword, "owner", "123456");
        m_portal->addDevice(kEmail, {"court-1", "Court 1"});
        m_portal->addDevice(kEmail, {"dev-2", "", "offline"});
        m_portal->addDevice({}, {"VT-0042", "Court 3", "online", {}, {}, "CLAIM-7"});
        m_portal->setLiveData("court-1", "hockey", {{"home_score", 2}});
        m_usb = std::make_unique<sim::UsbDevice>();
        QVERIFY(m_usb->start());
    }
    void cleanup()
    {
        // The windows show the application object, so they go first.
        m_wizard.reset();
        m_dock.reset();
        m_app.reset();
    }
    void signIn();
    void devicesAndRoutes();
    void livePanel();
    void updateBanner();
    void otherSections();
    void manageDialog_data();
    void manageDialog();
    void wizardOverUsbIntoLiveData();
    void wizardOverTheNetwork();
    void wizardWithAReceiver();
    void wizardBluetoothOnlyWithItsHelper();

private:
    void makeDock(QJsonObject settings = {}, SceneActions* actions = nullptr)
    {
        // "garage" is only on the network; "dev-2" has no token there and "shed" no address.
        settings["lan"] = QJsonDocument::fromJson(R"({
            "court-1": {"host": "127.0.0.1", "token": "t", "name": "Court 1"},
            "dev-2": {"host": "127.0.0.1", "token": ""},
            "garage": {"host": "127.0.0.1", "token": "t", "name": "Garage"},
            "shed": {"host": "", "token": "t", "name": "Shed"}})")
                              .object();
        AppEnvironment env = testAppEnvironment(m_dir.path(), m_portal->baseUrl(), settings);
        env.sources.feed.port = freePort();
        m_dock.reset();
        m_app = std::make_unique<App>(env);
        m_dock = std::make_unique<Dock>(m_app.get(), actions);
        m_dock->show();
    }
    void makeWizard(BleHelperBridge* bluetooth = nullptr, int probeTimeoutMs = 400)
    {
        if (!m_app)
            m_app = std::make_unique<App>(testAppEnvironment(m_dir.path(), m_portal->baseUrl()));
        const QList<UsbPortInfo> ports{{"/dev/ttyS0", "Built-in serial port", false},
                                       {m_usb->portPath(), "USB JTAG/serial debug unit", true}};
        const UsbLinkSettings usb{.helloIntervalMs = 50, .giveUpMs = 400, .pingIntervalMs = 100};
        m_wizard = std::make_unique<SetupWizard>(
            m_app.get(), SetupWizardSettings{[ports] { return ports; }, usb, FastSession,
                                             probeTimeoutMs, bluetooth});
        m_wizard->show();
    }
    // The window under test: the wizard while there is one, else the dock.
    QWidget* root() const
    {
        return m_wizard ? m_wizard.get() : static_cast<QWidget*>(m_dock.get());
    }
    QString text(const QString& name) const { return shown(root(), name); }
    bool red(const QString& label) const { return shownAsFailure(root(), label); }
    void press(const QString& button) { click(root(), button); }
    void type(const QJsonObject& fields) { fill(root(), fields); }
    QStringList items(const char* name) const
    {
        QStringList texts;
        for (int i = 0; i < child<QComboBox>(root(), name)->count(); ++i)
            texts << child<QComboBox>(root(), name)->itemText(i);
        return texts;
    }
    QString page() const { return m_wizard->currentPage()->objectName(); }
    // Connects to the simulated USB device, or to the address typed.
    void connectTo(const QString& address = {})
    {
        child<QRadioButton>(root(), address.isEmpty() ? "useUsb" : "useNetwork")->setChecked(true);
        type({{"addressEdit", address}});
        child<QListWidget>(root(), "portList")->setCurrentRow(1);
        press("nextButton");
    }
    void signIn(const QString& password)
    {
        QTRY_VERIFY(child(root(), "passwordEdit")->isVisible());
        type({{"passwordEdit", password}});
        press("nextButton");
    }
    // Goes to the page `name` from the first one after signing in, noting the pages on the way.
    void goToPage(const QString& name)
    {
        QTRY_VERIFY(!QStringList({"connectionPage", "signInPage"}).contains(page()));
        while (child(root(), "backButton")->isEnabled())
            press("backButton");
        for (m_pages = {page()}; page() != name && child(root(), "nextButton")->isEnabled();
             m_pages << page())
            press("nextButton");
    }
    QTemporaryDir m_dir;
    std::unique_ptr<sim::PortalServer> m_portal;
    std::unique_ptr<sim::UsbDevice> m_usb;
    std::unique_ptr<App> m_app;
    std::unique_ptr<Dock> m_dock;
    std::unique_ptr<SetupWizard> m_wizard;
    QStringList m_pages;
};

// A wrong password, a wrong code, then the right code.
void TestDock::signIn()
{
    makeDock();
    type({{"email", "nobody@example.com"}, {"password", kPassword}});
    press("signIn");
    QTRY_COMPARE(text("accountError"),
                 "That email and password did not match. Check them and try again.");
    QVERIFY(red("accountError"));
    type({{"email", " ref@example.com"}});
    press("signIn");
    QTRY_VERIFY(child(root(), "code")->isVisible());
    QVERIFY(!m_app->isSignedIn() && !child(root(), "verifyCode")->isEnabled());
    QTest::keyClicks(child(root(), "code"), "654321");
    press("verifyCode");
    QTRY_COMPARE(text("accountError"), "That code was not accepted. Enter the current 6-digit "
                                       "code from your authenticator app.");
    QTest::keyClicks(child(root(), "code"), "123456");
    press("verifyCode");
    QTRY_COMPARE(text("accountEmail"), "Signed in as ref@example.com");
    QVERIFY(m_app->isSignedIn() && text("accountError").isEmpty() && !red("accountError"));
}

// The account's devices and those set up on the network; the routes the chosen one can take;
// the devices window: every device and how it is reached, refreshed on demand, one window per
// purpose; signing out.
void TestDock::devicesAndRoutes()
{
    makeDock({{"routes", QJsonObject{{"court-1", "cloud"}}}});
    QCOMPARE(items("deviceList"),
             QStringList({"Choose a device", "Court 1 (court-1)", "Garage (garage)"}));
    QCOMPARE(text("routeChoice"), "");
    QCOMPARE(text("liveStatus"), "Choose a device to see live scores.");
    type({{"email", kEmail}, {"password", kPassword}});
    press("signIn");
    QTRY_COMPARE(items("deviceList"),
                 QStringList({"Choose a device", "Court 1 (court-1)", "dev-2", "Garage (garage)"}));
    type({{"deviceList", "court-1"}});
    QCOMPARE(items("routeChoice"), QStringList({"Vantorelle cloud", "Local network"}));
    QCOMPARE(text("routeChoice"), "Vantorelle cloud");
    type({{"routeChoice", int(Route::Lan)}});
    QCOMPARE(text("liveStatus"), "Connecting to Court 1 on your network");

    press("openDevices");
    press("openDevices"); // raises the open one
    QCOMPARE(m_dock->findChildren<DevicesWindow*>().size(), 1);
    QCOMPARE(text("devicesTable"), "Court 1 | court-1 | Vantorelle cloud, Local network\n"
                                   "dev-2 | dev-2 | Vantorelle cloud\n"
                                   "Garage | garage | Local network");
    QVERIFY(!child(root(), "manageConnected")->isEnabled()); // nothing connected by a session
    type({{"devicesTable", "court-1"}});
    press("manageDevice");
    press("manageDevice");
    QCOMPARE(m_dock->findChildren<ManageDialog*>().size(), 1);
    QCOMPARE(m_dock->findChild<ManageDialog*>()->windowTitle(), "Manage court-1");
    type({{"devicesTable", "garage"}});
    QVERIFY(!child(root(), "manageDevice")->isEnabled());
    press("useDevice");
    QCOMPARE(text("deviceList"), "Garage (garage)");
    QCOMPARE(items("routeChoice"), QStringList{"Local network"});
    QVERIFY(!child(root(), "routeChoice")->isEnabled());
    QVERIFY(!child(root(), "useDevice")->isEnabled()); // already the one followed

    // Opening the window read the account's list; Refresh waits for a reading to end.
    const auto refresh = [&] {
        QTRY_VERIFY(child(root(), "refreshDevices")->isEnabled());
        press("refreshDevices");
    };
    QTRY_VERIFY(child(root(), "refreshDevices")->isEnabled());
    m_portal->addDevice(kEmail, {"dev-5", "Pool"});
    refresh();
    QTRY_VERIFY(text("devicesTable").contains("Pool | dev-5 | Vantorelle cloud"));
    QVERIFY(items("deviceList").contains("Pool (dev-5)"));
    m_portal->fail("/devices", 502);
    refresh();
    const QString unreachable =
        "The Vantorelle service could not reach the live data feed. Try again shortly.";
    QTRY_COMPARE(text("devicesMessage"), unreachable);
    QVERIFY(red("devicesMessage"));
    QCOMPARE(text("devicesError"), unreachable);
    QVERIFY(red("devicesError"));
    press("signOut"); // at once, and the saved sign-in goes too
    QVERIFY(!m_app->isSignedIn() && !QFile::exists(m_dir.filePath("session.json")));
    QCOMPARE(text("signIn"), "Sign in");
    QCOMPARE(text("devicesTable"), "Court 1 | court-1 | Local network\n"
                                   "Garage | garage | Local network");
}

// The banner says what the update service answered: a failure, then an update this plug-in can
// install, then one only offered for download.
void TestDock::updateBanner()
{
    sim::UpdateServer service;
    QVERIFY(service.start());
    service.setManifestResponse(sim::HttpResponse::text("down", 500));
    makeDock();
    UpdaterSandbox sandbox;
    service.setSigningKey(sandbox.signingKey());
    UpdaterConfig config = sandbox.config(service.manifestUrl());
    config.downloadPage = "https://example.com/get";
    m_app->updater().setConfig(config);
    QVERIFY(child(root(), "updateBannerPanel")->isHidden()); // nothing to do about updates
    press("checkUpdates");
    QTRY_COMPARE(text("updateBanner"),
                 "Could not reach the Vantorelle update service. Check your internet connection.");
    QVERIFY(red("updateBanner"));
    QJsonObject manifest = service.publish("1.2.0", platformPackageKey(), "package");
    manifest["released"] = "2026-11-02";
    manifest["notes"] = QJsonArray{"Faster", "Fixes"};
    service.setManifest(manifest);
    press("checkUpdates");
    QTRY_COMPARE(text("updateBanner"), "Version 1.2.0 is available.");
    QCOMPARE(text("updateDetails"), "Version 1.2.0, released 2026-11-02\nFaster\nFixes");
    QCOMPARE(text("installUpdate") + '|' + text("downloadLink"), "Install|");
    QVERIFY(!red("updateBanner"));
    // Cancel shows while the download runs; Install comes back after a cancel or a failure.
    sim::HttpResponse stalled;
    stalled.stall = true;
    service.setPackageResponse("package.zip", stalled);
    press("installUpdate");
    QCOMPARE(text("installUpdate") + '|' + text("cancelUpdate"), "|Cancel");
    QVERIFY(child(root(), "updateProgress")->isVisible());
    press("cancelUpdate");
    QCOMPARE(text("updateBanner"), "Version 1.2.0 is available.");
    QCOMPARE(text("installUpdate") + '|' + text("cancelUpdate"), "Install|");
    service.setPackageResponse("package.zip", sim::HttpResponse::text("gone", 404));
    press("installUpdate");
    QTRY_COMPARE(text("updateBanner"),
                 "The download did not finish. Check your internet connection and try again.");
    QCOMPARE(text("installUpdate") + '|' + text("cancelUpdate"), "Retry|");
    QVERIFY(!child(root(), "updateProgress")->isVisible());
    QVERIFY(!child(root(), "updateRestartNote")->isVisible());
    config.installFolder.clear(); // installed for all users
    m_app->updater().setConfig(config);
    press("checkUpdates");
    QTRY_COMPARE(text("installUpdate") + '|' + text("downloadLink"),
                 "|<a href=\"https://example.com/get\">Download version 1.2.0</a>");
}

// What is on air, the operator's own fields and holds, and the stale state as soon as the route
// reports it; the clock runs only while the dock is shown.
void TestDock::livePanel()
{
    makeDock({{"operator_fields", QJsonObject{{"sponsor", "Acme"}}},
              {"routes", QJsonObject{{"court-1", "cloud"}}}});
    auto* table = child<QTreeWidget>(root(), "liveFields");
    auto rows = [table] {
        QStringList lines;
        for (int i = 0; i < table->topLevelItemCount(); ++i) {
            const QTreeWidgetItem* item = table->topLevelItem(i);
            lines << QStringList{item->text(0), item->text(1), item->text(2)}.join('|');
        }
        return lines;
    };
    QCOMPARE(text("liveAge"), "No device chosen.");
    QCOMPARE(rows(), QStringList{"sponsor|Acme|yours"});
    type({{"email", kEmail}, {"password", kPassword}});
    press("signIn");
    QTRY_VERIFY(items("deviceList").contains("Court 1 (court-1)"));
    m_app->chooseRoute("court-1", Route::Cloud);
    QTRY_COMPARE(rows(), QStringList({"home_score|2|", "sponsor|Acme|yours"}));
    QCOMPARE(text("liveAge"), "Updated just now.");

    type({{"fieldName", "home_score"}, {"fieldValue", "5"}});
    press("holdButton");
    QCOMPARE(m_app->fields().value("home_score"), "5");
    QCOMPARE(rows().first(), "home_score|5|held (underneath: 2)");
    QVERIFY(!child(root(), "releaseButton")->isEnabled()); // nothing selected
    table->setCurrentItem(table->topLevelItem(0));
    press("releaseButton");
    QCOMPARE(rows().first(), "home_score|2|");
    type({{"fieldName", "home team"}, {"fieldValue", "Hawks"}});
    press("setFieldButton");
    QVERIFY(red("fieldsMessage"));
    QCOMPARE(rows().size(), 2);
    table->setCurrentItem(table->topLevelItem(1));
    QCOMPARE(text("fieldName") + "=" + text("fieldValue"), "sponsor=Acme");
    press("removeFieldButton");
    QCOMPARE(rows(), QStringList{"home_score|2|"});

    m_app->sourceManager()->setStaleAfterMs(1);
    QTRY_VERIFY(m_app->sourceManager()->isStale());
    QVERIFY2(text("liveAge").startsWith("STALE: no data for "), qPrintable(text("liveAge")));
    QCOMPARE(child(root(), "liveAge")->property("themeID").toString(), "warning");
    auto* clock = m_dock->findChild<QTimer*>("liveClock");
    QVERIFY(clock && clock->isActive());
    m_dock->hide();
    QVERIFY(!clock->isActive());
    m_dock->show();
    QVERIFY(clock->isActive());
}

// The sharing server's port and state; the scene section; the setup wizard opens from the devices
// window.
void TestDock::otherSections()
{
    struct : SceneActions
    {
        bool canAddGraphics(QString* reason) const override
        {
            *reason = "No browser source here.";
            return false;
        }
        SceneActionResult addScoreText() override { return {++added > 0, "Added the text."}; }
        SceneActionResult addGraphics() override { return {}; }
        int added = 0;
    } actions;
    const quint16 first = freePort(), browsers = freePort();
    makeDock({{"server_enabled", true}, {"server_port", first}, {"browser_port", browsers}},
             &actions);
    QCOMPARE(text("serverState"), QStringLiteral("Listening on port %1, 0 clients").arg(first));
    QCOMPARE(text("browserState"),
             QStringLiteral("Browser sources: http://127.0.0.1:%1/overlay").arg(browsers));
    LineClient client;
    QVERIFY(client.connectTo("127.0.0.1", first));
    QTRY_COMPARE(text("serverState"), QStringLiteral("Listening on port %1, 1 client").arg(first));
    QTcpServer holder;
    QVERIFY(holder.listen(QHostAddress::LocalHost));
    type({{"serverPort", holder.serverPort()}});
    const QString busy = QStringLiteral("Could not listen on port %1: ").arg(holder.serverPort());
    QVERIFY2(text("serverState").startsWith(busy) && red("serverState"), qPrintable(busy));
    type({{"serverEnabled", false}});
    QCOMPARE(text("serverState"), "Not running");
    QCOMPARE(text("browserState"), "");
    QVERIFY(!child(root(), "serverPort")->isEnabled());

    QVERIFY(!child(root(), "addGraphics")->isEnabled());
    QCOMPARE(text("graphicsUnavailable"), "No browser source here.");
    press("addScoreText");
    QCOMPARE(actions.added, 1);
    QCOMPARE(text("sceneResult"), "Added the text.");

    press("openDevices");
    press("setupDevice");
    press("setupDevice"); // raises the open one
    QCOMPARE(m_dock->findChildren<SetupWizard*>().size(), 1);
    QPointer<SetupWizard> wizard = m_dock->findChild<SetupWizard*>();
    QVERIFY(wizard && wizard->isVisible());
    wizard->close();
    QTRY_VERIFY(!wizard);
    cleanup(); // before the scene actions go
}

// [name, device, button, choices made, a portal answer replaced (path: body, or failing status),
// progress, status line, result (or the scoreboard the portal got), whether that failed, the
// controller list a device supplied (none: the built-in makers)]
void TestDock::manageDialog_data()
{
    addRows(R"json([
["status", "court-1", "checkStatus", {}, {}, "Asking the device…", "Status received.",
 "device_id: court-1\nnickname: Court 1\nonline: true\nseq: 1\nsport: hockey"],
["update", "court-1", "checkUpdate", {}, {}, "Checking for a firmware update…",
 "Update check finished.", "command: ota_check\nok: true"],
["restart", "court-1", "restartDevice", {}, {}, "Restarting…", "Restart sent.", ""],
["restart offline", "dev-2", "restartDevice", {}, {}, "Restarting…",
 "The device is offline; it will restart when it reconnects.", ""],
["scoreboard", "court-1", "changeScoreboard", {"manufacturer": "NEVCO", "sport": "wrestling",
  "inputType": "rs485"}, {}, "Sending to the device…", "The device accepted the new scoreboard.",
 {"manufacturer": "NEVCO", "model": "", "sport": "wrestling", "input_type": "rs485"}],
["scoreboard from a device's list", "court-1", "changeScoreboard", {"manufacturer": "Acme",
  "model": "X2"}, {}, "Sending to the device…", "The device accepted the new scoreboard.",
 {"manufacturer": "Acme", "model": "X2", "sport": "soccer", "input_type": "rs485"}, false,
 [{"manufacturer": "Acme", "model": "X1", "sport": "hockey", "input_type": "rs232"},
  {"manufacturer": "Acme", "model": "X2", "sport": "soccer", "input_type": "rs485"},
  {"manufacturer": "Zed", "model": "Z", "sport": "soccer", "input_type": "wireless"}]],
["restart fails", "court-1", "restartDevice", {}, {"/devices/court-1/cmd/reboot": 502},
 "Restarting…", "The Vantorelle service could not reach the live data feed. Try again shortly.",
 "", true],
["scoreboard fails", "court-1", "changeScoreboard", {}, {"/devices/court-1/config": 402},
 "Sending to the device…", "This device needs an active Vantorelle cloud plan for that.", "", true]
])json");
}

void TestDock::manageDialog()
{
    QFETCH(QJsonArray, row);
    makeDock();
    m_app->portal().signIn(kEmail, kPassword, [](const PortalResult&) {});
    QTRY_VERIFY(m_app->isSignedIn());
    const QString device = row[1].toString(), path = row[4].toObject().keys().value(0);
    if (row[4][path].isObject())
        m_portal->setFailure(path, sim::HttpResponse::json(row[4][path].toObject()));
    else if (!path.isEmpty())
        m_portal->fail(path, row[4][path].toInt());
    ManageDialog dialog(device, &m_app->portal(), controllersFromJson(row.at(9).toArray()));
    QCOMPARE(dialog.windowTitle(), "Manage " + device);
    fill(&dialog, row[3].toObject());
    click(&dialog, row[2].toString());
    QCOMPARE(shown(&dialog, "status"), row[5].toString());
    QVERIFY(!child(&dialog, "checkStatus")->isEnabled()); // one command at a time
    QTRY_COMPARE(shown(&dialog, "status"), row[6].toString());
    QVERIFY(child(&dialog, "checkStatus")->isEnabled());
    QCOMPARE(shownAsFailure(&dialog, "status"), row.at(8).toBool());
    if (row[7].isObject())
        QCOMPARE(m_portal->deviceConfig(device), row[7].toObject());
    else
        QCOMPARE(shown(&dialog, "result"), row[7].toString());
}

// Over the cable: a wrong password, a forced change of it; the device joins Wi-Fi, its live data
// on the network takes the address it got there, it joins the account and OBS follows it; the
// device manager then drives it until it is unplugged.
void TestDock::wizardOverUsbIntoLiveData()
{
    m_usb->setPassword("s3cret");
    m_usb->admin()->setMustChangePassword(true);
    makeWizard();
    QCOMPARE(text("stepTitle"), "Step 1: Connect"); // how many follow is not known yet
    QCOMPARE(text("portList"), "Built-in serial port\nUSB JTAG/serial debug unit – likely a "
                               "Vantorelle device");
    QCOMPARE(text("portCount"), "2 USB ports found. Pick the Vantorelle device.");
    connectTo();
    QTRY_COMPARE(text("stepTitle"), "Step 2: Sign in");
    QCOMPARE(m_wizard->focusWidget()->objectName(), "passwordEdit");
    signIn("wrong");
    QTRY_COMPARE(text("signInMessage"), "The device did not accept that password. Try again.");
    QVERIFY(red("signInMessage"));
    signIn("s3cret");
    QTRY_VERIFY(child(root(), "newPasswordEdit")->isVisible());
    QCOMPARE(text("currentPasswordEdit"), "s3cret");
    type({{"newPasswordEdit", "better-one"}, {"confirmPasswordEdit", "better-two"}});
    press("changePasswordButton");
    QCOMPARE(text("signInMessage"), "The new passwords do not match.");
    type({{"confirmPasswordEdit", "better-one"}});
    QTest::keyClick(child(root(), "confirmPasswordEdit"), Qt::Key_Return); // Enter is Next
    QTRY_COMPARE(page(), "wifiPanel");
    QCOMPARE(text("stepTitle"), "Step 3 of 8: Wi-Fi");
    QCOMPARE(m_usb->admin()->password(), "better-one");

    QTRY_VERIFY(child(root(), "scanWifi")->isEnabled());
    press("scanWifi");
    QTRY_COMPARE(child<QListWidget>(root(), "networkList")->count(), 4);
    child<QListWidget>(root(), "networkList")->setCurrentRow(0);
    type({{"wifiPassword", "puck-drop-7"}});
    press("joinWifi");
    QTRY_COMPARE(message(m_wizard->currentPage()), "Joined Arena-Staff (192.168.1.57).");
    goToPage("localFeedPage");
    press("enableLiveData");
    QTRY_COMPARE(text("localFeedMessage"), "Stored for Vantorelle 0042 (VT-0042): address "
                                           "192.168.1.57, with its access token.");
    QCOMPARE(text("accessToken"), ""); // hidden until asked for
    press("showToken");
    QCOMPARE(text("accessToken"), m_usb->admin()->apiToken());
    QCOMPARE(m_app->settings().lanEntry("VT-0042").token, m_usb->admin()->apiToken());
    goToPage("cloudPage");
    QCOMPARE(text("addToAccount"), ""); // not signed in yet
    m_app->portal().signIn(kEmail, kPassword, [](const PortalResult&) {});
    QTRY_VERIFY(m_app->isSignedIn());
    type({{"claimCodeEdit", " CLAIM-7 "}}); // the portal wants it for this device
    press("addToAccount");
    QTRY_COMPARE(text("cloudMessage"), "The device is now on your account.");

    goToPage("finishPage");
    QCOMPARE(text("stepTitle"), "Step 8 of 8: Finish");
    QCOMPARE(text("finishSummary"), "When you press Finish, OBS takes the live scores from "
                                    "Vantorelle 0042 over the USB cable from now on, and this "
                                    "window closes.");
    QVERIFY(!child(root(), "nextButton")->isEnabled());
    press("finishButton");
    SourceManager* live = m_app->sourceManager();
    QCOMPARE(live->status(), "Connected to Vantorelle 0042, waiting for scoreboard data");
    m_wizard.reset(); // the live data keeps the session
    m_usb->sendEnvelope({{"type", "state"}, {"fields", QJsonObject{{"home_score", 7}}}});
    QTRY_COMPARE(live->status(), "Live from Vantorelle 0042");
    QCOMPARE(m_app->live().value("home_score"), "7");

    DeviceManager manager(m_app.get(), live->session(), "VT-0042");
    QTRY_VERIFY(shown(&manager, "statusLines").contains("wifi_sta_ip: 192.168.1.57"));
    m_usb->unplug();
    QTRY_COMPARE(shown(&manager, "sessionState"),
                 "The USB device was unplugged or stopped responding.");
    QVERIFY(shownAsFailure(&manager, "sessionState"));
}

// Over the network: an attempt that waits is stopped by Cancel and by Escape, and Enter starts
// another; addresses that cannot be used or reached, then the device's; its pages; the local
// feed keeps the address it was reached at (not the web port); Escape then closes and lets it go.
void TestDock::wizardOverTheNetwork()
{
    QTcpServer silent; // accepts and never answers
    QVERIFY(silent.listen(QHostAddress::LocalHost));
    makeWizard(nullptr, 60000);
    connectTo(QStringLiteral("127.0.0.1:%1").arg(silent.serverPort()));
    QCOMPARE(text("connectionMessage"), "Connecting…");
    QVERIFY(!child(root(), "nextButton")->isEnabled());
    QTRY_VERIFY(silent.hasPendingConnections());
    QTcpSocket* first = silent.nextPendingConnection();
    press("cancelButton");
    QVERIFY(m_wizard->isVisible() && !m_wizard->session());
    QCOMPARE(page(), "connectionPage");
    QCOMPARE(text("connectionMessage"),
             "Stopped connecting. Choose the connection and press Next to try again.");
    QVERIFY(!red("connectionMessage") && child(root(), "nextButton")->isEnabled());
    QTRY_COMPARE(first->state(), QAbstractSocket::UnconnectedState);
    QTest::keyClick(child(root(), "addressEdit"), Qt::Key_Return);
    QCOMPARE(text("connectionMessage"), "Connecting…");
    QTRY_VERIFY(silent.hasPendingConnections());
    QTest::keyClick(m_wizard.get(), Qt::Key_Escape);
    QVERIFY(m_wizard->isVisible() && !m_wizard->session());
    QCOMPARE(text("connectionMessage"),
             "Stopped connecting. Choose the connection and press Next to try again.");

    sim::LanDevice lan;
    QVERIFY(lan.start());
    makeWizard();
    connectTo("court one");
    QCOMPARE(text("connectionMessage"), "That address cannot be used. Type the device's number "
                                        "(such as 12), its name or its IP address.");
    connectTo("http://7/setup");
    QTRY_COMPARE(text("connectionMessage"),
                 "Could not reach vantorelle-0007.local on your network. Check the address, and "
                 "that this computer and the device are on the same network.");
    QCOMPARE(text("addressEdit"), "vantorelle-0007.local");
    connectTo(QStringLiteral("http://%1/").arg(lan.address()));
    signIn("admin");
    goToPage("finishPage");
    QCOMPARE(m_pages, QStringList({"wifiPanel", "controllerPanel", "wirelessPanel", "localFeedPage",
                                   "cloudPage", "finishPage"}));
    goToPage("localFeedPage");
    press("enableLiveData");
    QTRY_COMPARE(text("localFeedMessage"), "Stored for Vantorelle 0042 (VT-0042): address "
                                           "127.0.0.1, with its access token.");
    QCOMPARE(m_app->settings().lanEntry("VT-0042").host, "127.0.0.1");
    QPointer<DeviceSession> session = m_wizard->session().get();
    QTest::keyClick(m_wizard.get(), Qt::Key_Escape);
    QVERIFY(!m_wizard->isVisible());
    QTRY_VERIFY(!session);
    QCOMPARE(page(), "connectionPage");
}

// A wireless receiver: no sign-in, its own settings only, in the wizard and the device manager;
// the row's mnemonics, and Enter on the last page finishes.
void TestDock::wizardWithAReceiver()
{
    m_usb->setRole(sim::UsbDevice::Role::Receiver);
    makeWizard();
    QVERIFY(QTest::qWaitForWindowActive(m_wizard.get()));
    connectTo();
    goToPage("finishPage");
    QCOMPARE(m_pages, QStringList({"wirelessPanel", "finishPage"}));
    QVERIFY(!m_usb->admin()->methodsSeen().contains("login"));
    QCOMPARE(text("stepTitle"), "Step 3 of 3: Finish");
    QTest::keyClick(m_wizard.get(), Qt::Key_B, Qt::AltModifier); // a mnemonic clicks animated
    QTRY_COMPARE(text("stepTitle"), "Step 2 of 3: Wireless link");
    QTest::keyClick(m_wizard.get(), Qt::Key_N, Qt::AltModifier);
    QTRY_COMPARE(page(), "finishPage");
    QTest::keyClick(m_wizard.get(), Qt::Key_Return);
    QVERIFY(!m_wizard->isVisible());
    QCOMPARE(m_app->sourceManager()->status(),
             "Connected to Vantorelle Receiver, waiting for scoreboard data");

    DeviceManager manager(m_app.get(), m_app->sourceManager()->session(), "the receiver");
    QCOMPARE(manager.tabs()->count(), 1);
    QCOMPARE(manager.tabs()->tabText(0), "Receiver");
    QVERIFY(!child(&manager, "restartDevice"));
    QWidget* panel = child(&manager, "wirelessPanel");
    QTRY_VERIFY(child(panel, "generateReceiverKey")->isEnabled());
    click(panel, "generateReceiverKey");
    QTRY_VERIFY(!m_usb->receiverKey().isEmpty());
    QTRY_COMPARE(shown(panel, "receiverKey"), m_usb->receiverKey());
    QCOMPARE(message(panel), "The receiver's new key: " + m_usb->receiverKey());
    fill(panel, {{"receiverChannel", 3}});
    click(panel, "applyReceiver");
    QTRY_COMPARE(message(panel), "The receiver took the settings.");
    QCOMPARE(m_usb->receiverChannel(), 3);
    click(panel, "restartReceiver");
    QTRY_COMPARE(message(panel), "The receiver is restarting. It will be back in a moment.");
}

// Bluetooth is offered only with its helper; through it the device is found, paired, signed in.
void TestDock::wizardBluetoothOnlyWithItsHelper()
{
    makeWizard();
    QVERIFY(!child(root(), "useBluetooth"));
    qputenv("VANTORELLE_BLE_SIM_PASSKEY", "482913");
    BleHelperBridge bridge({.startTimeoutMs = 5000, .requestTimeoutMs = 3000, .scanMs = 50});
    bridge.setHelperPath(QStringLiteral(VANTORELLE_BLE_SIM));
    makeWizard(&bridge);
    child<QRadioButton>(root(), "useBluetooth")->setChecked(true);
    QVERIFY(!child(root(), "portList")->isVisible());
    press("scanBluetooth");
    QTRY_COMPARE(text("bluetoothList"), "Vantorelle 0042 (F4:12:FA:00:00:42, -58 dBm)");
    type({{"blePasskeyEdit", "482913"}});
    press("nextButton");
    signIn("admin");
    QTRY_COMPARE(page(), "wifiPanel");
    cleanup(); // the session and its link before the bridge
    qunsetenv("VANTORELLE_BLE_SIM_PASSKEY");
}

QTEST_MAIN(TestDock)
#include "tst_dock.moc"
