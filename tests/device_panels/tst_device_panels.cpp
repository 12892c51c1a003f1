#include "common/device_bench.h"
#include "ui/controller_panel.h"
#include "ui/status_panel.h"
#include "ui/wifi_panel.h"
#include "ui/wireless_panel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>

using namespace vantorelle;
using namespace vantorelle::test;
using State = DeviceSession::State;

namespace {

const QString NotOverNetwork =
    QStringLiteral("This is only available over USB or Bluetooth, not over the network.");

} // namespace

class TestDevicePanels : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void statusAndNetworkTest_data();
    void statusAndNetworkTest();
    void failureIsClearedBySuccess();
    void wifiScanAndJoin_data();
    void wifiScanAndJoin();
    void wifiOffWhileSending();
    void controllerPreselectedAndChanged();
    void receiverKeyGenerated();
    void deviceSendsToReceiver();
    void wirelessRefusedOverNetwork();
    void panelDeletedWhileRequestRuns();
};

void TestDevicePanels::statusAndNetworkTest_data()
{
    QTest::addColumn<bool>("overNetwork");
    QTest::newRow("usb") << false;
    QTest::newRow("network") << true;
}

void TestDevicePanels::statusAndNetworkTest()
{
    QFETCH(bool, overNetwork);
    Bench bench(overNetwork);
    QVERIFY(bench.started);
    StatusPanel panel(bench.session.get());
    QLabel* status = child(&panel, "statusLines");
    QTRY_VERIFY(status->text().contains(QLatin1String("device_id: VT-0042")));
    QVERIFY(status->text().contains(QLatin1String("online: true")));
    QVERIFY(status->text().contains(QLatin1String("free_heap: 183424")));
    QVERIFY(!status->text().contains(QLatin1String("controller:"))); // nested: left out
    QVERIFY(!status->text().contains(QLatin1String("wifi_provision:")));
    QCOMPARE(message(&panel), QString());

    click(&panel, "runNetworkTest");
    QCOMPARE(message(&panel), QStringLiteral("Running the network test…"));
    QTRY_VERIFY(child(&panel, "networkTestLines")->text().contains(QLatin1String("latency_ms: 0")));
    QTRY_VERIFY(child<QPushButton>(&panel, "refreshStatus")->isEnabled());
    QCOMPARE(message(&panel), QString());
    savePicture(&panel, QStringLiteral("status_panel_%1").arg(QTest::currentDataTag()));
}

void TestDevicePanels::failureIsClearedBySuccess()
{
    Bench bench(false);
    QVERIFY(bench.started);
    StatusPanel panel(bench.session.get());
    QTRY_VERIFY(child<QPushButton>(&panel, "runNetworkTest")->isEnabled());
    bench.responder().failNext("networkTest", "internal", "The network test could not start");
    click(&panel, "runNetworkTest");
    QTRY_COMPARE(message(&panel), QStringLiteral("The network test could not start"));
    QVERIFY(shownAsFailure(&panel));
    click(&panel, "refreshStatus");
    QTRY_COMPARE(message(&panel), QString());
    QVERIFY(!shownAsFailure(&panel));
}

void TestDevicePanels::wifiScanAndJoin_data()
{
    QTest::addColumn<bool>("overNetwork");
    QTest::addColumn<QString>("outcome"); // the network device's verdict; empty: its own
    QTest::addColumn<int>("afterMs");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("sentence");

    const QString joined = QStringLiteral("Joined Arena-Staff (192.168.1.57).");
    QTest::newRow("usb ok") << false << "" << 0 << "long-enough" << joined;
    QTest::newRow("usb reverted") << false << "" << 0 << "short"
                                  << "The device could not join Arena-Staff: wrong password. "
                                     "Check the password and try again.";
    QTest::newRow("network ok") << true << "ok" << 0 << "long-enough" << joined;
    QTest::newRow("network reverted") << true << "reverted" << 0 << "long-enough"
                                      << "The device could not join Arena-Staff: auth failed. "
                                         "Check the password and try again.";
    QTest::newRow("network pending")
        << true << "ok" << 60000 << "long-enough"
        << "The device is still working on joining Arena-Staff. Check back in a minute.";
}

void TestDevicePanels::wifiScanAndJoin()
{
    QFETCH(bool, overNetwork);
    QFETCH(QString, outcome);
    QFETCH(int, afterMs);
    QFETCH(QString, password);
    QFETCH(QString, sentence);
    Bench bench(overNetwork);
    QVERIFY(bench.started);
    if (!outcome.isEmpty())
        bench.lan->setWifiJoinOutcome(outcome, outcome == "ok" ? "" : "auth failed", afterMs);
    WifiPanel panel(bench.session.get());
    QTRY_VERIFY(child<QPushButton>(&panel, "scanWifi")->isEnabled());
    click(&panel, "scanWifi");
    auto* list = child<QListWidget>(&panel, "networkList");
    QTRY_COMPARE(list->count(), 4);
    QCOMPARE(list->item(0)->text(), QStringLiteral("Arena-Staff (-48 dBm)"));
    list->setCurrentRow(0);
    QCOMPARE(child<QLineEdit>(&panel, "networkName")->text(), QStringLiteral("Arena-Staff"));
    child<QLineEdit>(&panel, "wifiPassword")->setText(password);
    click(&panel, "joinWifi");
    QTRY_COMPARE(message(&panel), sentence);
    QVERIFY(!shownAsFailure(&panel));
    savePicture(&panel, QStringLiteral("wifi_panel_%1").arg(QTest::currentDataTag()));
}

void TestDevicePanels::wifiOffWhileSending()
{
    Bench bench(false);
    QVERIFY(bench.started);
    bench.responder().setEspNowRole("tx");
    WifiPanel panel(bench.session.get());
    QTRY_VERIFY(child<QPushButton>(&panel, "scanWifi")->isEnabled());
    click(&panel, "scanWifi");
    QTRY_COMPARE(message(&panel),
                 QStringLiteral("This device is set to send its scores to a wireless receiver, "
                                "so its Wi-Fi is switched off and it cannot see networks. Turn "
                                "the wireless link off to use Wi-Fi."));
    QVERIFY(shownAsFailure(&panel));
    QCOMPARE(child<QListWidget>(&panel, "networkList")->count(), 0);
}

void TestDevicePanels::controllerPreselectedAndChanged()
{
    Bench bench(false);
    QVERIFY(bench.started);
    ControllerPanel panel(bench.session.get());
    const QJsonObject current = bench.responder().controller();
    QTRY_COMPARE(panel.chosen().manufacturer, current.value("manufacturer").toString());
    QCOMPARE(panel.chosen().model, current.value("model").toString());
    QCOMPARE(panel.chosen().sport, current.value("sport").toString());
    QCOMPARE(panel.chosen().input_type, current.value("input_type").toString());
    savePicture(&panel, QStringLiteral("controller_panel"));

    auto* manufacturers = child<QComboBox>(&panel, "controllerManufacturer");
    QVERIFY(manufacturers->count() > 1);
    const int other = manufacturers->currentIndex() == 0 ? 1 : 0;
    manufacturers->setCurrentIndex(other);
    Q_EMIT manufacturers->activated(other);
    const ControllerChoice choice = panel.chosen();
    QCOMPARE(choice.manufacturer, manufacturers->itemData(other).toString());
    QVERIFY(!choice.model.isEmpty() && !choice.input_type.isEmpty());

    click(&panel, "setController");
    QTRY_VERIFY(message(&panel).startsWith(QLatin1String("The device now reads a ")));
    QCOMPARE(bench.responder().controller().value("manufacturer").toString(), choice.manufacturer);
    QCOMPARE(bench.responder().controller().value("model").toString(), choice.model);
}

void TestDevicePanels::receiverKeyGenerated()
{
    Bench bench(false, true);
    QVERIFY(bench.started);
    WirelessPanel panel(bench.session.get());
    QVERIFY(panel.isForReceiver());
    QTRY_VERIFY(child<QPushButton>(&panel, "generateReceiverKey")->isEnabled());
    click(&panel, "generateReceiverKey");
    QTRY_VERIFY(!bench.usb->receiverKey().isEmpty());
    QTRY_COMPARE(child<QLineEdit>(&panel, "receiverKey")->text(), bench.usb->receiverKey());
    QCOMPARE(message(&panel),
             QStringLiteral("The receiver's new key: %1").arg(bench.usb->receiverKey()));

    child<QSpinBox>(&panel, "receiverChannel")->setValue(3);
    click(&panel, "applyReceiver");
    QTRY_COMPARE(message(&panel), QStringLiteral("The receiver took the settings."));
    QCOMPARE(bench.usb->receiverChannel(), 3);

    bench.usb->failNextReceiverRequest("The key must be 32 hex digits");
    click(&panel, "applyReceiver");
    QTRY_COMPARE(message(&panel), QStringLiteral("The key must be 32 hex digits"));
    QVERIFY(shownAsFailure(&panel));
    savePicture(&panel, QStringLiteral("wireless_panel_receiver"));
}

void TestDevicePanels::deviceSendsToReceiver()
{
    Bench bench(false);
    QVERIFY(bench.started);
    WirelessPanel panel(bench.session.get());
    QVERIFY(!panel.isForReceiver());
    QLabel* state = child(&panel, "wirelessState");
    QTRY_COMPARE(state->text(), QStringLiteral("The wireless link is off."));

    child<QLineEdit>(&panel, "peerMac")->setText("24:6F:28:AA:BB:CC");
    child<QCheckBox>(&panel, "generateKey")->setChecked(true);
    click(&panel, "sendToReceiver");
    QTRY_COMPARE(state->text(),
                 QStringLiteral("Sending scores to the receiver 24:6F:28:AA:BB:CC, with a key."));
    QLabel* key = child(&panel, "generatedKey");
    QVERIFY(!key->isHidden());
    QVERIFY(key->text().startsWith(QLatin1String("Give the receiver this key: ")));
    savePicture(&panel, QStringLiteral("wireless_panel_device"));

    QTRY_VERIFY(child<QPushButton>(&panel, "turnOffWireless")->isEnabled());
    click(&panel, "turnOffWireless");
    QTRY_COMPARE(state->text(), QStringLiteral("The wireless link is off."));
}

void TestDevicePanels::wirelessRefusedOverNetwork()
{
    Bench bench(true);
    QVERIFY(bench.started);
    WirelessPanel panel(bench.session.get());
    QTRY_COMPARE(message(&panel), NotOverNetwork);
    QVERIFY(shownAsFailure(&panel));
    child<QLineEdit>(&panel, "peerMac")->setText("24:6F:28:AA:BB:CC");
    click(&panel, "sendToReceiver");
    QTRY_VERIFY(child<QPushButton>(&panel, "sendToReceiver")->isEnabled());
    QCOMPARE(message(&panel), NotOverNetwork);
    savePicture(&panel, QStringLiteral("wireless_panel_network"));
}

void TestDevicePanels::panelDeletedWhileRequestRuns()
{
    Bench bench(false);
    QVERIFY(bench.started);
    bench.usb->setAdminReplyDelay(100);
    QSignalSpy statuses(bench.session.get(), &DeviceSession::statusUpdated);
    auto* panel = new StatusPanel(bench.session.get());
    QTRY_VERIFY(panel->isBusy()); // its first refresh is on its way
    delete panel;
    QTRY_COMPARE(statuses.count(), 1); // the answer arrives and finds no panel
    QCOMPARE(bench.session->state(), State::Ready);
}

QTEST_MAIN(TestDevicePanels)
#include "tst_device_panels.moc"
