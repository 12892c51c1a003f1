// The device manager's tabs against simulated devices (USB on a pseudo-terminal, the network API
// on 127.0.0.1) and a local portal.

#include "common/app_support.h"
#include "common/device_bench.h"
#include "common/test_support.h"
#include "sim/portal_server.h"
#include "ui/advanced_panel.h"
#include "ui/cloud_panel.h"
#include "ui/device_manager.h"
#include "ui/firmware_panel.h"
#include "ui/security_panel.h"
#include "ui/settings_panel.h"
#include "ui/wireless_panel.h"

#include <QCheckBox>
#include <QClipboard>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QLineEdit>
#include <QProgressBar>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace vantorelle;
using namespace vantorelle::test;
using State = DeviceSession::State;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");

void type(QWidget* panel, const char* field, const QString& text)
{
    child<QLineEdit>(panel, field)->setText(text);
}

} // namespace

class TestDeviceManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void tabsAndPictures();
    void receiverGetsItsOwnSettings();
    void settingsShownAndSaved_data();
    void settingsShownAndSaved();
    void passwordAndPasskey();
    void accessTokenStoredForLiveData_data();
    void accessTokenStoredForLiveData();
    void firmwareInstalledWithProgress();
    void firmwareFailureAndRestart();
    void cloudSettingsAndSharing();
    void pairingThroughTheAccount();
    void restartLeadsToRestarting();
    void deletedWhileRequestsRun();

private:
    QJsonObject savedLanEntry(const QString& id) const
    {
        return QJsonDocument::fromJson(readFile(m_dir.filePath("settings.json")))
            .object()
            .value("lan")
            .toObject()
            .value(id)
            .toObject();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<sim::PortalServer> m_portal;
    std::unique_ptr<App> m_app;
};

void TestDeviceManager::init()
{
    QVERIFY(m_dir.isValid());
    QFile::remove(m_dir.filePath("session.json"));
    m_portal = std::make_unique<sim::PortalServer>();
    QVERIFY(m_portal->start());
    m_portal->addAccount(kEmail, kPassword);
    m_app = std::make_unique<App>(testAppEnvironment(m_dir.path(), m_portal->baseUrl()));
}

void TestDeviceManager::cleanup()
{
    m_app.reset();
    m_portal.reset();
}

void TestDeviceManager::tabsAndPictures()
{
    Bench bench(false);
    QVERIFY(bench.started);
    DeviceManager dialog(m_app.get(), bench.session, QStringLiteral("VT-0042"));
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Manage VT-0042"));
    QTabWidget* tabs = dialog.tabs();
    const QStringList expected{"Status",   "Wi-Fi",    "Scoreboard", "Settings",
                               "Security", "Firmware", "Cloud",      "Advanced"};
    QStringList shown;
    for (int i = 0; i < tabs->count(); ++i)
        shown << tabs->tabText(i);
    QCOMPARE(shown, expected);
    QVERIFY(child(&dialog, "sessionState")->isHidden());
    dialog.resize(720, 720);
    // Every panel read what it shows once nothing is busy any more.
    QTRY_VERIFY(!child(tabs->widget(0), "statusLines")->text().isEmpty());
    QTRY_VERIFY(child<QSpinBox>(tabs->widget(3), "setting_brightness"));
    QTRY_COMPARE(child<QLineEdit>(tabs->widget(6), "deviceIdEdit")->text(), "VT-0042");
    QTRY_COMPARE(child(tabs->widget(7), "wirelessState")->text(),
                 QStringLiteral("The wireless link is off."));
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        savePicture(&dialog, QStringLiteral("device_manager_%1").arg(expected.at(i)));
    }

    bench.usb->unplug();
    QLabel* state = child(&dialog, "sessionState");
    QTRY_COMPARE(state->text(),
                 QStringLiteral("The USB device was unplugged or stopped responding."));
    QVERIFY(!state->isHidden() && state->styleSheet().contains(QLatin1String("#d9534f")));
}

void TestDeviceManager::receiverGetsItsOwnSettings()
{
    Bench bench(false, true);
    QVERIFY(bench.started);
    DeviceManager dialog(m_app.get(), bench.session, QStringLiteral("wireless receiver"));
    QCOMPARE(dialog.tabs()->count(), 1);
    QCOMPARE(dialog.tabs()->tabText(0), QStringLiteral("Receiver"));
    auto* panel = qobject_cast<AdvancedPanel*>(dialog.tabs()->widget(0));
    QVERIFY(panel && panel->wirelessPanel()->isForReceiver());
    QVERIFY(!child<QPushButton>(panel, "restartDevice"));
    WirelessPanel* receiver = panel->wirelessPanel();

    QTRY_VERIFY(child<QPushButton>(receiver, "readReceiverStatus")->isEnabled());
    click(receiver, "readReceiverStatus");
    QTRY_VERIFY(child(receiver, "receiverStatus")->text().contains(QLatin1String("channel: 6")));
    click(receiver, "restartReceiver");
    QTRY_COMPARE(message(receiver),
                 QStringLiteral("The receiver is restarting. It will be back in a moment."));
    dialog.resize(480, 520);
    savePicture(&dialog, QStringLiteral("device_manager_Receiver"));
}

void TestDeviceManager::settingsShownAndSaved_data()
{
    QTest::addColumn<bool>("overNetwork");
    QTest::newRow("usb") << false;
    QTest::newRow("network") << true;
}

void TestDeviceManager::settingsShownAndSaved()
{
    QFETCH(bool, overNetwork);
    Bench bench(overNetwork);
    QVERIFY(bench.started);
    QJsonObject stored = bench.responder().settings();
    SettingsPanel panel(bench.session.get());
    auto* save = child<QPushButton>(&panel, "saveSettings");
    QVERIFY(save->isHidden()); // nothing to save before the settings are read
    QTRY_VERIFY(!save->isHidden() && save->isEnabled());
    QCOMPARE(panel.edited(), stored); // the simulated settings are all plain values

    auto* name = child<QLineEdit>(&panel, "setting_device_name");
    QCOMPARE(name->text(), stored.value("device_name").toString());
    auto* brightness = child<QSpinBox>(&panel, "setting_brightness");
    QCOMPARE(brightness->value(), stored.value("brightness").toInt());
    auto* autoUpdate = child<QCheckBox>(&panel, "setting_auto_update");
    QCOMPARE(autoUpdate->isChecked(), stored.value("auto_update").toBool());

    name->setText(QStringLiteral("Center court"));
    brightness->setValue(35);
    autoUpdate->setChecked(false);
    click(&panel, "saveSettings");
    QCOMPARE(message(&panel), QStringLiteral("Saving the settings…"));
    QTRY_COMPARE(message(&panel), QStringLiteral("The device took the settings."));
    stored = bench.responder().settings();
    QCOMPARE(stored.value("device_name").toString(), QStringLiteral("Center court"));
    QCOMPARE(stored.value("brightness").toInt(), 35);
    QCOMPARE(stored.value("auto_update").toBool(), false);

    bench.responder().failNext("setSettings", "invalid_params", "brightness out of range");
    click(&panel, "saveSettings");
    QTRY_COMPARE(message(&panel), QStringLiteral("brightness out of range"));
    QVERIFY(shownAsFailure(&panel));
}

void TestDeviceManager::passwordAndPasskey()
{
    Bench bench(false);
    QVERIFY(bench.started);
    SecurityPanel panel(bench.session.get(), &m_app->settings());
    QTRY_VERIFY(child<QPushButton>(&panel, "changePasswordButton")->isEnabled());

    type(&panel, "currentPasswordEdit", "admin");
    type(&panel, "newPasswordEdit", "goal-horn");
    type(&panel, "confirmPasswordEdit", "goal-horm");
    click(&panel, "changePasswordButton");
    QCOMPARE(message(&panel), QStringLiteral("The new passwords do not match."));
    QVERIFY(!bench.responder().methodsSeen().contains("changePassword"));

    type(&panel, "currentPasswordEdit", "not-it");
    type(&panel, "confirmPasswordEdit", "goal-horn");
    click(&panel, "changePasswordButton");
    QTRY_COMPARE(message(&panel), QStringLiteral("The current password is wrong"));
    QVERIFY(shownAsFailure(&panel));
    QCOMPARE(bench.responder().password(), QStringLiteral("admin"));

    type(&panel, "currentPasswordEdit", "admin");
    type(&panel, "confirmPasswordEdit", "goal-horn");
    click(&panel, "changePasswordButton");
    QTRY_COMPARE(message(&panel), QStringLiteral("The admin password was changed."));
    QCOMPARE(bench.responder().password(), QStringLiteral("goal-horn"));
    QCOMPARE(bench.session->password(), QStringLiteral("goal-horn")); // for the next sign-in
    QVERIFY(child<QLineEdit>(&panel, "newPasswordEdit")->text().isEmpty());

    click(&panel, "showBlePasskey");
    QTRY_COMPARE(child(&panel, "blePasskey")->text(), QStringLiteral("Pairing passkey: 482913"));
}

void TestDeviceManager::accessTokenStoredForLiveData_data()
{
    QTest::addColumn<bool>("overNetwork");
    QTest::addColumn<bool>("onWifi");
    QTest::newRow("usb, not on a network") << false << false;
    QTest::newRow("usb, joined to Wi-Fi") << false << true;
    QTest::newRow("network") << true << false;
}

// The device's own Wi-Fi address comes first; over the network the address it was reached at
// stands in, without the web interface's port.
void TestDeviceManager::accessTokenStoredForLiveData()
{
    QFETCH(bool, overNetwork);
    QFETCH(bool, onWifi);
    Bench bench(overNetwork);
    QVERIFY(bench.started);
    if (onWifi) {
        bench.responder().handle(
            QJsonObject{{"id", 1},
                        {"method", "configureWifi"},
                        {"params", QJsonObject{{"ssid", "Arena-Staff"}, {"pass", "puck-drop"}}}});
    }
    SecurityPanel panel(bench.session.get(), &m_app->settings());
    QTRY_VERIFY(child<QPushButton>(&panel, "showAccessToken")->isEnabled());
    click(&panel, "showAccessToken");
    QTRY_VERIFY(!panel.isBusy());
    if (!overNetwork && !onWifi) {
        QCOMPARE(message(&panel), QStringLiteral("The device is not on a network yet. Join it to "
                                                 "a Wi-Fi network first, then try again."));
        QVERIFY(savedLanEntry("VT-0042").isEmpty());
        return;
    }
    const QString token = bench.responder().apiToken();
    QVERIFY(!token.isEmpty());
    QCOMPARE(child<QLineEdit>(&panel, "accessToken")->text(), token);
    const QJsonObject saved = savedLanEntry("VT-0042");
    QCOMPARE(saved.value("token").toString(), token);
    QCOMPARE(saved.value("host").toString(),
             onWifi ? QStringLiteral("192.168.1.57") : QStringLiteral("127.0.0.1"));
    QVERIFY(m_app->settings().lanEntry("VT-0042").usable());
    click(&panel, "copyAccessToken");
    QCOMPARE(QGuiApplication::clipboard()->text(), token);
    savePicture(&panel, QStringLiteral("security_panel"));
}

void TestDeviceManager::firmwareInstalledWithProgress()
{
    Bench bench(false);
    QVERIFY(bench.started);
    FirmwarePanel panel(bench.session.get());
    panel.setProgressInterval(20);
    QTRY_VERIFY(child<QPushButton>(&panel, "checkFirmware")->isEnabled());
    click(&panel, "checkFirmware");
    QTRY_VERIFY(child(&panel, "firmwareLines")->text().contains("update_available: true"));
    QVERIFY(!child(&panel, "firmwareLines")->text().contains("{")); // nothing nested

    QSignalSpy requests(&bench.responder(), &sim::AdminResponder::requestHandled);
    click(&panel, "installFirmware");
    QTRY_COMPARE(message(&panel),
                 QStringLiteral("The update is installed. The device restarts to use it."));
    QCOMPARE(child<QProgressBar>(&panel, "firmwareProgress")->value(), 100);
    int polls = 0;
    for (const QList<QVariant>& request : std::as_const(requests))
        polls += request.at(0).toString() == QLatin1String("otaProgress");
    QCOMPARE(polls, 4); // the simulated device moves on by a quarter each time it is asked
    savePicture(&panel, QStringLiteral("firmware_panel"));

    click(&panel, "checkRadio");
    QTRY_VERIFY(child(&panel, "radioLines")->text().contains("available: 1.0.4"));
    click(&panel, "updateRadio");
    QTRY_COMPARE(message(&panel), QStringLiteral("The radio firmware update started. The device "
                                                 "restarts when it is done."));
}

void TestDeviceManager::firmwareFailureAndRestart()
{
    Bench bench(false);
    QVERIFY(bench.started);
    FirmwarePanel panel(bench.session.get());
    panel.setProgressInterval(20);
    QTRY_VERIFY(child<QPushButton>(&panel, "installFirmware")->isEnabled());
    bench.responder().setResult(
        "otaProgress", {{"state", "error"}, {"percent", 40}, {"error", "Image too large"}});
    click(&panel, "installFirmware");
    QTRY_COMPARE(message(&panel), QStringLiteral("Image too large"));
    QVERIFY(shownAsFailure(&panel));

    // The device restarts into the new firmware halfway through the polls.
    bench.responder().setResult("otaProgress", {{"state", "writing"}, {"percent", 60}});
    click(&panel, "installFirmware");
    QTRY_COMPARE(message(&panel), QStringLiteral("Installing the firmware update: 60%"));
    bench.usb->unplug();
    const QString restarting = QStringLiteral("The device is restarting with the new firmware. "
                                              "It will be back in a minute.");
    QTRY_COMPARE(message(&panel), restarting);
    QVERIFY(!shownAsFailure(&panel));
    // The panel may learn of the restart first, from a progress poll whose write fails on the
    // unplugged port; the session hears of it on the port's next read tick. Wait for that, and
    // the panel must still say the same once it has.
    QTRY_COMPARE(bench.session->state(), State::Restarting);
    QCOMPARE(message(&panel), restarting);
    QVERIFY(!shownAsFailure(&panel));
}

void TestDeviceManager::cloudSettingsAndSharing()
{
    Bench bench(true);
    QVERIFY(bench.started);
    CloudPanel panel(m_app.get(), bench.session.get());
    QTRY_VERIFY(child<QSpinBox>(&panel, "broker_port"));
    QCOMPARE(child<QLineEdit>(&panel, "deviceIdEdit")->text(), QStringLiteral("VT-0042"));
    QVERIFY(!child<QWidget>(&panel, "pairingAdminPassword")->isVisible()); // signed out

    type(&panel, "broker_host", "mqtt.arena.local");
    child<QSpinBox>(&panel, "broker_port")->setValue(8883);
    type(&panel, "brokerPassword", "s3cret");
    click(&panel, "saveBroker");
    QTRY_COMPARE(message(&panel), QStringLiteral("The device took the broker settings."));
    const QJsonObject broker = bench.responder()
                                   .handle(QJsonObject{{"id", 9}, {"method", "getMqttConfig"}})
                                   .value("result")
                                   .toObject();
    QCOMPARE(broker.value("host").toString(), QStringLiteral("mqtt.arena.local"));
    QCOMPARE(broker.value("port").toInt(), 8883);
    QVERIFY(child<QLineEdit>(&panel, "brokerPassword")->text().isEmpty());

    click(&panel, "provision");
    QTRY_COMPARE(message(&panel), QStringLiteral("The device has its cloud credentials."));

    type(&panel, "deviceIdEdit", "VT-0099");
    click(&panel, "changeDeviceId");
    QTRY_COMPARE(message(&panel), QStringLiteral("The device id is now VT-0099."));
    QCOMPARE(bench.responder()
                 .handle(QJsonObject{{"id", 10}, {"method", "getDeviceId"}})
                 .value("result")
                 .toObject()
                 .value("device_id"),
             QJsonValue("VT-0099"));

    auto* share = child<QCheckBox>(&panel, "shareConnection");
    QVERIFY(share->isChecked());
    share->setChecked(false);
    QCOMPARE(m_app->settings().shareConnection(), false);
    QVERIFY(readFile(m_dir.filePath("settings.json")).contains("\"share_connection\": false"));
}

void TestDeviceManager::pairingThroughTheAccount()
{
    Bench bench(false);
    QVERIFY(bench.started);
    m_portal->addDevice(kEmail, {QStringLiteral("VT-0042"), QStringLiteral("Court 3"),
                                 QStringLiteral("online"), QStringLiteral("771204"),
                                 QStringLiteral("admin")});
    CloudPanel panel(m_app.get(), bench.session.get());
    panel.resize(460, 700);
    panel.show();
    QTRY_VERIFY(!panel.isBusy() && child(&panel, "pairingHint")->text().startsWith("Sign in"));
    QVERIFY(!child<QPushButton>(&panel, "revealPairing")->isVisible());
    m_app->portal().signIn(kEmail, kPassword, [](const PortalResult&) {});
    QTRY_VERIFY(child<QPushButton>(&panel, "revealPairing")->isVisible());

    click(&panel, "revealPairing");
    QTRY_COMPARE(child(&panel, "pairingPasskey")->text(),
                 QStringLiteral("Pairing passkey: 771204"));
    // The field starts with the password the session signed in with.
    QCOMPARE(child<QLineEdit>(&panel, "pairingAdminPassword")->text(), QStringLiteral("admin"));
    type(&panel, "pairingAdminPassword", "guess");
    click(&panel, "storePairing");
    QTRY_COMPARE(message(&panel), QStringLiteral("The device's admin password was not accepted."));
    QVERIFY(shownAsFailure(&panel));
    type(&panel, "pairingAdminPassword", "admin");
    click(&panel, "storePairing");
    QTRY_COMPARE(message(&panel), QStringLiteral("Your account now keeps the device's pairing."));
    savePicture(&panel, QStringLiteral("cloud_panel"));
}

void TestDeviceManager::restartLeadsToRestarting()
{
    Bench bench(false);
    QVERIFY(bench.started);
    DeviceManager dialog(m_app.get(), bench.session, QStringLiteral("VT-0042"));
    auto* panel = qobject_cast<AdvancedPanel*>(dialog.tabs()->widget(7));
    QVERIFY(panel && !panel->wirelessPanel()->isForReceiver());
    QTRY_VERIFY(child<QPushButton>(panel, "restartDevice")->isEnabled());
    QSignalSpy reboots(&bench.responder(), &sim::AdminResponder::rebootRequested);
    click(panel, "restartDevice");
    QTRY_COMPARE(message(panel),
                 QStringLiteral("The device is restarting. It will be back in a moment."));
    QCOMPARE(reboots.count(), 1);
    bench.usb->unplug(); // as the device does when it restarts
    QTRY_COMPARE(bench.session->state(), State::Restarting);
    QVERIFY(!child<QPushButton>(panel, "restartDevice")->isEnabled());
    QVERIFY(child(&dialog, "sessionState")->text().startsWith("The device is restarting."));
}

void TestDeviceManager::deletedWhileRequestsRun()
{
    Bench bench(false);
    QVERIFY(bench.started);
    bench.usb->setAdminReplyDelay(100);
    auto* dialog = new DeviceManager(m_app.get(), bench.session, QStringLiteral("VT-0042"));
    auto* settings = qobject_cast<SettingsPanel*>(dialog->tabs()->widget(3));
    QVERIFY(settings);
    QTRY_VERIFY(settings->isBusy()); // reading the settings
    QSignalSpy statuses(bench.session.get(), &DeviceSession::statusUpdated);
    delete dialog;
    QTRY_COMPARE(statuses.count(), 1); // the status panel's answer arrives and finds no panel
    QTest::qWait(300);                 // and so do the others
    QCOMPARE(bench.session->state(), State::Ready);
}

QTEST_MAIN(TestDeviceManager)
#include "tst_device_manager.moc"
