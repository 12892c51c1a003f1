#include "common/device_bench.h"
#include "ui/advanced_panel.h"
#include "ui/device_manager.h"
#include "ui/settings_panel.h"
#include "ui/wireless_panel.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTabWidget>
#include <QTest>

using namespace vantorelle;
using namespace vantorelle::test;
using State = DeviceSession::State;

class TestDeviceManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tabsAndPictures();
    void settingsShownAndSaved_data();
    void settingsShownAndSaved();
    void restartDevice();
    void deletedWhileRequestRuns();
};

void TestDeviceManager::tabsAndPictures()
{
    Bench bench(false);
    QVERIFY(bench.started);
    DeviceManager dialog(bench.session, QStringLiteral("VT-0042"));
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Manage VT-0042"));
    QTabWidget* tabs = dialog.tabs();
    const QStringList expected{"Status", "Wi-Fi", "Scoreboard", "Settings", "Advanced"};
    QCOMPARE(tabs->count(), expected.size());
    for (int i = 0; i < tabs->count(); ++i)
        QCOMPARE(tabs->tabText(i), expected.at(i));
    dialog.resize(520, 640);
    // Every panel read what it shows once nothing is busy any more.
    QTRY_VERIFY(!child(tabs->widget(0), "statusLines")->text().isEmpty());
    QTRY_VERIFY(child<QSpinBox>(tabs->widget(3), "setting_brightness"));
    QTRY_COMPARE(child(tabs->widget(4), "wirelessState")->text(),
                 QStringLiteral("The wireless link is off."));
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        savePicture(&dialog, QStringLiteral("device_manager_%1").arg(expected.at(i)));
    }
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

void TestDeviceManager::restartDevice()
{
    Bench bench(false);
    QVERIFY(bench.started);
    AdvancedPanel panel(bench.session.get());
    QVERIFY(panel.wirelessPanel() && !panel.wirelessPanel()->isForReceiver());
    QTRY_VERIFY(child<QPushButton>(&panel, "restartDevice")->isEnabled());
    QSignalSpy reboots(&bench.responder(), &sim::AdminResponder::rebootRequested);
    click(&panel, "restartDevice");
    QTRY_COMPARE(message(&panel),
                 QStringLiteral("The device is restarting. It will be back in a moment."));
    QCOMPARE(reboots.count(), 1);
    bench.usb->unplug(); // as the device does when it restarts
    QTRY_COMPARE(bench.session->state(), State::Restarting);
    QVERIFY(!child<QPushButton>(&panel, "restartDevice")->isEnabled());
}

void TestDeviceManager::deletedWhileRequestRuns()
{
    Bench bench(false);
    QVERIFY(bench.started);
    bench.usb->setAdminReplyDelay(100);
    auto* dialog = new DeviceManager(bench.session, QStringLiteral("VT-0042"));
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
