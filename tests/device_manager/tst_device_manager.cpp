// The device manager's panels only see the session: every action runs against a scripted device
// (the account's part against a local portal). The dock suite drives it over simulated USB.

#include "common/app_support.h"
#include "common/device_bench.h"
#include "device_manager.h"
#include "firmware_panel.h"
#include "http_link.h"
#include "settings_panel.h"
#include "sim/lan_device.h"
#include "sim/portal_server.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QMessageBox>
#include <QSpinBox>
#include <QTabWidget>
#include <QTemporaryDir>

using namespace vantorelle;
using namespace vantorelle::test;

static const QString kEmail = QStringLiteral("coach@example.com");
static const QString kPassword = QStringLiteral("hunter22");

// Answers the confirmation an action asked for, with its accepting button or Cancel; its texts
// and the button's, joined by "|" (empty when nothing was asked).
QString answerConfirmation(QWidget* dialog, bool accept)
{
    auto* box = dialog->findChild<QMessageBox*>("confirmation");
    const QMessageBox::ButtonRole role = accept ? QMessageBox::AcceptRole : QMessageBox::RejectRole;
    for (QAbstractButton* button : box ? box->buttons() : QList<QAbstractButton*>()) {
        if (box->buttonRole(button) != role)
            continue;
        const QString texts = box->text() + '|' + box->informativeText() + '|' + button->text();
        button->click();
        return texts;
    }
    return {};
}

class TestDeviceManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid() && m_portal.start());
        m_portal.addAccount(kEmail, kPassword);
        m_portal.addDevice(kEmail, {"VT-0042", "Court 3", "online", "771204", "admin"});
        m_app = std::make_unique<App>(testAppEnvironment(m_dir.path(), m_portal.baseUrl()));
    }
    // Signed in to the account, which keeps the device's Bluetooth pairing.
    void init()
    {
        if (!m_app->isSignedIn())
            m_app->portal().signIn(kEmail, kPassword, [](const PortalResult&) {});
        QTRY_VERIFY(m_app->isSignedIn());
    }
    void actions_data();
    void actions();
    void firmwareRestartEndsTheSession();
    void settingsOfTheSimulatedDevice();

private:
    QTemporaryDir m_dir;
    sim::PortalServer m_portal;
    std::unique_ptr<App> m_app;
};

// One row per action: [name, button, the device's answers by method (a result, successive
// results, or a refusal's message), fields typed, requests sent (the method, with its parameters
// unless empty), what the panel shows in the end, whether that is a failure]. Where the action
// asks first, "confirm" holds the question, what viewers will see and the button pressed, joined
// by "|" ("-": Cancel is pressed).
void TestDeviceManager::actions_data()
{
    addRows(R"json([
["status", "refreshStatus", {"getStatus": [{"device_id": "old"},
  {"device_id": "VT-0042", "online": true, "wifi": {"rssi": -50}}]}, {}, ["getStatus"],
 {"statusLines": "device_id: VT-0042\nonline: true"}],
["network test", "runNetworkTest", {"networkTest": {"latency_ms": 23, "dns_ok": true}}, {},
 ["networkTest"], {"networkTestLines": "dns_ok: true\nlatency_ms: 23", "panelMessage": ""}],
["wifi scan", "scanWifi", {"scanWifi": {"networks": [{"ssid": "Arena", "rssi": -48},
  {"ssid": "", "rssi": -50}, {"ssid": "Bar", "rssi": -70}]}}, {}, ["scanWifi"],
 {"networkList": "Arena (-48 dBm)\nBar (-70 dBm)", "panelMessage": ""}],
["wifi join", "joinWifi", {"getStatus": {"wifi_provision": {"state": "ok"}, "wifi_sta_ip": "1.2"}},
 {"networkName": " Arena ", "wifiPassword": "puck"}, [["configureWifi", {"ssid": "Arena",
  "pass": "puck"}], "getStatus"], {"panelMessage": "Joined Arena (1.2)."}],
["controller", "setController", {"getControllerList": {"controllers": [
   {"manufacturer": "V", "model": "Bridge", "sport": "hockey", "input_type": "wireless"},
   {"manufacturer": "Arcline", "model": "AS-500", "sport": "hockey", "input_type": "rs232"},
   {"manufacturer": "Arcline", "model": "AS-500", "sport": "basketball", "input_type": "rs232"}]},
  "getControllerConfig": {"manufacturer": "Arcline", "model": "AS-500", "sport": "basketball"}},
 {"controllerSport": "hockey"}, [["setControllerConfig", {"manufacturer": "Arcline",
  "model": "AS-500", "sport": "hockey", "input_type": "rs232"}]], {"controllerInput": "RS-232",
  "panelMessage": "The device now reads a Arcline AS-500 (Hockey, RS-232)."}],
["settings saved", "saveSettings", {"getSettings": {"name": "C3", "brightness": 80, "auto": true,
  "net": {"dhcp": true}}}, {"setting_brightness": 35, "setting_auto": false}, [["setSettings",
  {"auto": false, "brightness": 35}]], {"panelMessage": "The device took the settings."}],
["settings unchanged", "saveSettings", {"getSettings": {"name": "C3"}}, {"setting_name": "C3"}, [],
 {"panelMessage": "Nothing to save: no setting was changed."}],
["settings read again", "reloadSettings", {"getSettings": ["Busy", {"name": "Court 3"}]}, {},
 ["getSettings"], {"setting_name": "Court 3", "panelMessage": ""}],
["password changed", "changePasswordButton", {}, {"currentPasswordEdit": "admin",
  "newPasswordEdit": "goal", "confirmPasswordEdit": "goal"}, [["changePassword",
  {"current_password": "admin", "new_password": "goal", "confirm_password": "goal"}]],
 {"panelMessage": "The admin password was changed.", "newPasswordEdit": ""}],
["password refused", "changePasswordButton", {"changePassword": "Wrong"},
 {"currentPasswordEdit": "x", "newPasswordEdit": "goal", "confirmPasswordEdit": "goal"},
 [["changePassword", {"current_password": "x", "new_password": "goal", "confirm_password":
  "goal"}]], {"panelMessage": "Wrong", "newPasswordEdit": "goal"}, true],
["passwords differ", "changePasswordButton", {}, {"newPasswordEdit": "goal",
  "confirmPasswordEdit": "gaol"}, [], {"panelMessage": "The new passwords do not match."}, true],
["access token", "showAccessToken", {"ensureApiToken": {"token": "f00d"},
  "getStatus": {"wifi_sta_ip": "10.0.0.7"}}, {}, ["ensureApiToken", "getDeviceId", "getStatus"],
 {"accessToken": "f00d", "panelMessage":
  "OBS now takes live data from VT-0042 at 10.0.0.7 on your network when you choose it."}],
["access token, no address", "showAccessToken", {"getStatus": {"name": "Court 3"}}, {},
 ["ensureApiToken", "getDeviceId", "getStatus"], {"panelMessage":
  "The device is not on a network yet. Join it to a Wi-Fi network first, then try again."}, true],
["access token copied", "copyAccessToken", {}, {"accessToken": "f00d"}, [],
 {"panelMessage": "The access token is on the clipboard."}],
["pairing passkey", "showBlePasskey", {"blePasskey": {"passkey": "482913"}}, {}, ["blePasskey"],
 {"blePasskey": "Pairing passkey: 482913", "panelMessage": ""}],
["firmware check", "checkFirmware", {"otaCheck": {"update_available": true, "latest": "2.5",
  "notes": []}}, {}, ["otaCheck"], {"firmwareLines": "latest: 2.5\nupdate_available: true"}],
["firmware installed", "installFirmware", {"otaProgress": [{"state": "writing", "percent": 50},
  {"state": "ok", "percent": 70}]}, {}, ["otaApply", "otaProgress", "otaProgress"], {"confirm":
  "Install the firmware update now?|The scoreboard data stops for about a minute while the device installs the update and restarts.|Install", "panelMessage":
  "The update is installed. The device restarts to use it.", "firmwareProgress": "70%"}],
["firmware fails", "installFirmware", {"otaProgress": [{"state": "writing", "percent": 50},
  {"state": "failed", "detail": "Too large"}]}, {}, ["otaApply", "otaProgress", "otaProgress"],
 {"confirm": "Install the firmware update now?|The scoreboard data stops for about a minute while the device installs the update and restarts.|Install",
  "panelMessage": "Too large", "firmwareProgress": "50%"}, true],
["radio check", "checkRadio", {"c6OtaStatus": {"version": "1.0.3", "available": "1.0.4"}}, {},
 ["c6OtaStatus"], {"radioLines": "available: 1.0.4\nversion: 1.0.3"}],
["radio update", "updateRadio", {}, {}, ["c6OtaApply"], {"panelMessage":
  "The radio firmware update started. The device restarts when it is done."}],
["device id changed", "changeDeviceId", {}, {"deviceIdEdit": " VT-9"},
 [["setDeviceId", {"device_id": "VT-9"}]], {"confirm": "Change the device id to VT-9?|Graphics and live data that follow the old id stop until they are set to the new one.|Change",
  "panelMessage": "The device id is now VT-9."}],
["broker saved", "saveBroker", {"getMqttConfig": {"host": "", "port": 1883, "tls": {"ca": "x"}}},
 {"broker_host": "mqtt", "broker_port": 8883, "brokerPassword": "s3cret"}, [["setMqttConfig",
  {"host": "mqtt", "port": 8883, "password": "s3cret"}]], {"brokerPassword": "",
  "panelMessage": "The device took the broker settings."}],
["cloud credentials", "provision", {}, {}, ["provision"],
 {"panelMessage": "The device has its cloud credentials."}],
["pairing shown", "revealPairing", {}, {}, [],
 {"pairingPasskey": "Pairing passkey: 771204", "panelMessage": ""}],
["pairing refused", "storePairing", {}, {"pairingAdminPassword": "guess"}, [],
 {"panelMessage": "The device's admin password was not accepted."}, true],
["pairing kept", "storePairing", {}, {}, [],
 {"panelMessage": "Your account now keeps the device's pairing."}],
["restart", "restartDevice", {}, {}, ["reboot"],
 {"confirm": "Restart the device?|The scoreboard data stops for about half a minute while it restarts.|Restart",
  "panelMessage": "The device is restarting. It will be back in a moment."}],
["restart cancelled", "restartDevice", {}, {}, [], {"confirm": "-", "panelMessage": ""}],
["send to a receiver", "sendToReceiver", {"setEspNow": {"key": "0011"}, "getEspNow": [
   {"espnow": {"role": "off"}}, {"espnow": {"role": "tx", "peer_mac": "24:6F:28:AA:BB:CC",
   "key_set": true}}]}, {"peerMac": " 24-6f-28-aa-bb-cc", "generateKey": true}, [["setEspNow",
  {"role": "tx", "peer_mac": "24:6F:28:AA:BB:CC", "generate_key": true}], "getEspNow"],
 {"generatedKey": "Give the receiver this key: 0011", "panelMessage": "",
  "wirelessState": "Sending scores to the receiver 24:6F:28:AA:BB:CC, with a key."}],
["receiver address checked", "sendToReceiver", {}, {"peerMac": "24:6F:28"}, [], {"panelMessage":
  "The receiver's address is six pairs of digits 0-9 and A-F, such as 24:6F:28:AA:BB:CC."}, true],
["wireless off", "turnOffWireless", {"getEspNow": [{"espnow": {"role": "rx"}},
  {"espnow": {"role": "off"}}]}, {}, [["setEspNow", {"role": "off"}], "getEspNow"],
 {"wirelessState": "The wireless link is off."}]
])json");
}

void TestDeviceManager::actions()
{
    QFETCH(QJsonArray, row);
    ScriptedDevice device;
    QVERIFY(device.started);
    device.transport.answers = row[2].toObject();
    device.transport.answers->insert("getDeviceId", QJsonObject{{"device_id", "VT-0042"}});
    DeviceManager dialog(m_app.get(), device.session, "VT-0042");
    child<FirmwarePanel>(&dialog, "firmwarePanel")->setProgressInterval(10);
    QCoreApplication::processEvents(); // the panels start reading what they show
    const QList<AdminPanel*> panels = dialog.findChildren<AdminPanel*>();
    QTRY_VERIFY(std::none_of(panels.begin(), panels.end(), [](auto* p) { return p->isBusy(); }));

    const qsizetype mark = device.transport.rawRequests().size();
    fill(&dialog, row[3].toObject());
    click(&dialog, row[1].toString());
    QWidget* panel = child(&dialog, row[1].toString());
    while (!qobject_cast<AdminPanel*>(panel))
        panel = panel->parentWidget();
    QJsonObject expected = row[5].toObject();
    const QString confirm = expected.take("confirm").toString();
    const QString asked = answerConfirmation(&dialog, confirm != "-");
    QCOMPARE(confirm == "-" ? QString(asked.isEmpty() ? "" : "-") : asked, confirm);
    for (auto it = expected.begin(); it != expected.end(); ++it)
        QTRY_COMPARE(shown(panel, it.key()), it->toString());
    QCOMPARE(shownAsFailure(panel), row[6].toBool());
    QCOMPARE(device.transport.sent(mark),
             QJsonDocument(row[4].toArray()).toJson(QJsonDocument::Compact));
}

// The device drops the link when it restarts into the new firmware: the installation went well.
void TestDeviceManager::firmwareRestartEndsTheSession()
{
    ScriptedDevice device;
    QVERIFY(device.started);
    device.transport.answers =
        QJsonObject{{"otaProgress", QJsonObject{{"state", "writing"}, {"percent", 6}}}};
    DeviceManager dialog(m_app.get(), device.session, "VT-0042");
    QStringList tabs;
    for (int i = 0; i < dialog.tabs()->count(); ++i)
        tabs << dialog.tabs()->tabText(i) + '=' + dialog.tabs()->widget(i)->objectName();
    QCOMPARE(tabs,
             QStringList({"Status=statusPanel", "Wi-Fi=wifiPanel", "Scoreboard=controllerPanel",
                          "Settings=settingsPanel", "Security=securityPanel",
                          "Firmware=firmwarePanel", "Cloud=cloudPanel", "Advanced=advancedPanel"}));
    child<FirmwarePanel>(&dialog, "firmwarePanel")->setProgressInterval(10);
    QWidget* panel = dialog.tabs()->widget(5);
    QTRY_VERIFY(child(panel, "installFirmware")->isEnabled());
    click(panel, "installFirmware");
    QVERIFY(!answerConfirmation(&dialog, true).isEmpty());
    QTRY_COMPARE(message(panel), "Installing the firmware update: 6%");
    Q_EMIT device.closed("The USB device was unplugged.");
    QTRY_COMPARE(device.session->state(), DeviceSession::State::Restarting);
    QTRY_COMPARE(message(panel),
                 "The device is restarting with the new firmware. It will be back in a minute.");
    QVERIFY(!shownAsFailure(panel));
    QCOMPARE(shown(&dialog, "sessionState"), "The device is restarting. Open the setup window "
                                             "from the dock to connect again once it is back.");
    QVERIFY(!shownAsFailure(&dialog, "sessionState"));
}

// The settings the program knows get their name and the input they need, others their key; a
// save sends only what was edited, so what another tool changed meanwhile stays.
void TestDeviceManager::settingsOfTheSimulatedDevice()
{
    sim::LanDevice lan;
    QVERIFY(lan.start());
    const auto setBehindTheFormsBack = [&lan](const QJsonObject& settings) {
        lan.responder().handle(
            QJsonObject{{"id", "other"}, {"method", "setSettings"}, {"params", settings}});
    };
    setBehindTheFormsBack({{"timezone", "Mars/Olympus"}, {"screen_saver_minutes", 5}});
    HttpLink link(lan.address());
    DeviceSession session(FastSession);
    session.setPassword("admin");
    session.start(&link);
    SettingsPanel panel(&session);
    QTRY_COMPARE(shown(&panel, "setting_device_name"), "Vantorelle 0042");

    // Each row: its label (none where the box says it), the editor, its name, what it shows.
    auto* form =
        qobject_cast<QFormLayout*>(child(&panel, "setting_device_name")->parentWidget()->layout());
    QStringList rows;
    for (int i = 0; i < form->rowCount(); ++i) {
        QLayoutItem* field = form->itemAt(i, QFormLayout::FieldRole);
        QWidget* editor = (field ? field : form->itemAt(i, QFormLayout::SpanningRole))->widget();
        auto* label = qobject_cast<QLabel*>(form->labelForField(editor));
        QVERIFY(!label || label->textFormat() == Qt::PlainText); // keys come from the device
        rows << QStringList{label ? label->text() : "", editor->metaObject()->className(),
                            editor->objectName(), shown(&panel, editor->objectName())}
                    .join('|');
    }
    QCOMPARE(
        rows,
        QStringList(
            {"Device name|QLineEdit|setting_device_name|Vantorelle 0042",
             "Time zone|QComboBox|setting_timezone|Mars/Olympus",
             "Brightness|QSpinBox|setting_brightness|80%",
             "|QCheckBox|setting_auto_update|Install firmware updates automatically",
             "|QCheckBox|setting_cloud_enabled|Keep the device connected to the Vantorelle cloud",
             "Screen saver minutes|QSpinBox|setting_screen_saver_minutes|5"}));
    auto* zones = child<QComboBox>(&panel, "setting_timezone");
    QVERIFY(zones->isEditable() && zones->findData("Europe/Berlin") > 0);
    auto* brightness = child<QSpinBox>(&panel, "setting_brightness");
    QCOMPARE(QList<int>({brightness->minimum(), brightness->maximum()}), QList<int>({0, 100}));
    QVERIFY(child<QCheckBox>(&panel, "setting_auto_update")->isChecked());

    fill(&panel, {{"setting_brightness", 35}, {"setting_timezone", "Europe/Berlin"}});
    setBehindTheFormsBack({{"device_name", "Court 3"}});
    click(&panel, "saveSettings");
    QTRY_COMPARE(message(&panel), "The device took the settings.");
    QCOMPARE(
        lan.responder().settings(),
        QJsonDocument::fromJson(R"({"auto_update": true, "brightness": 35, "cloud_enabled": true,
                 "device_name": "Court 3", "screen_saver_minutes": 5, "timezone": "Europe/Berlin"})")
            .object());
    const qsizetype saves = lan.responder().methodsSeen().count("setSettings");
    click(&panel, "saveSettings"); // what was saved is no longer a change
    QCOMPARE(message(&panel), "Nothing to save: no setting was changed.");
    QCOMPARE(lan.responder().methodsSeen().count("setSettings"), saves);
}

QTEST_MAIN(TestDeviceManager)
#include "tst_device_manager.moc"
