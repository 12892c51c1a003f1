// The setup wizard against simulated devices and a local portal, page by page as a user would.

#include "common/app_support.h"
#include "common/test_support.h"
#include "core/app.h"
#include "links/ble_helper_bridge.h"
#include "sim/admin_responder.h"
#include "sim/lan_device.h"
#include "sim/portal_server.h"
#include "sim/usb_device.h"
#include "ui/setup_wizard.h"

#include <QComboBox>
#include <QDir>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");
const QString kDeviceId = QStringLiteral("VT-0042");
const QString kDeviceName = QStringLiteral("Vantorelle 0042"); // as the device calls itself
const QString kErrorColour = QStringLiteral("#d9534f");

void savePicture(QWidget* page, const QString& name)
{
    const QString folder = QStringLiteral(VANTORELLE_ARTIFACT_DIR);
    QDir().mkpath(folder);
    QVERIFY(page->grab().save(QStringLiteral("%1/setup_wizard_%2.png").arg(folder, name)));
}

} // namespace

class TestSetupWizard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void portListAndWrongThenRightPassword();
    void forcedPasswordChange();
    void linkFailuresShownAsTheyAre_data();
    void linkFailuresShownAsTheyAre();
    void networkAddress_data();
    void networkAddress();
    void localFeedStoredInSettings();
    void usbDeviceJoinsWifiThenFeedsTheNetwork();
    void receiverKeyGenerated();
    void bluetoothOnlyWithItsHelper();
    void addedToPortalAccount();
    void finishIntoLiveData();

private:
    void makeWizard(QList<UsbPortInfo> extraPorts = {}, BleHelperBridge* bluetooth = nullptr);
    void connectUsb(const QString& port);
    void connectNetwork(const QString& typed);
    void signIn(const QString& password);
    void goToPage(const char* name);
    template <typename T = QLabel> T* widget(const char* name) const
    {
        T* found = m_wizard->findChild<T*>(QLatin1String(name));
        if (!found)
            qFatal("the wizard has no %s", name);
        return found;
    }
    QString pageName() const { return m_wizard->currentPage()->objectName(); }
    void click(const char* name);

    QTemporaryDir m_dir;
    std::unique_ptr<sim::PortalServer> m_portal;
    std::unique_ptr<sim::UsbDevice> m_usb;
    std::unique_ptr<App> m_app;
    std::unique_ptr<SetupWizard> m_wizard;
};

void TestSetupWizard::init()
{
    QVERIFY(m_dir.isValid());
    QFile::remove(m_dir.filePath("settings.json"));
    QFile::remove(m_dir.filePath("session.json"));
    m_portal = std::make_unique<sim::PortalServer>();
    QVERIFY(m_portal->start());
    m_portal->addAccount(kEmail, kPassword);
    m_usb = std::make_unique<sim::UsbDevice>();
    QVERIFY(m_usb->start());
    m_app = std::make_unique<App>(testAppEnvironment(m_dir.path(), m_portal->baseUrl()));
}

void TestSetupWizard::cleanup()
{
    m_wizard.reset();
    m_app.reset();
    m_usb.reset();
    m_portal.reset();
}

void TestSetupWizard::makeWizard(QList<UsbPortInfo> extraPorts, BleHelperBridge* bluetooth)
{
    SetupWizardSettings settings;
    settings.bluetooth = bluetooth;
    const QList<UsbPortInfo> ports =
        QList<UsbPortInfo>{
            {QStringLiteral("/dev/ttyS0"), QStringLiteral("Built-in serial port"), false},
            {m_usb->portPath(), QStringLiteral("USB JTAG/serial debug unit"), true}} +
        extraPorts;
    settings.listPorts = [ports] { return ports; };
    settings.usb = {.helloIntervalMs = 50, .giveUpMs = 400, .pingIntervalMs = 100};
    settings.session = {.pollIntervalMs = 50, .requestTimeoutMs = 3000, .busyRetryDelayMs = 10};
    settings.probeTimeoutMs = 400;
    m_wizard = std::make_unique<SetupWizard>(m_app.get(), settings);
    m_wizard->resize(480, 560);
    m_wizard->show();
}

void TestSetupWizard::click(const char* name)
{
    auto* button = widget<QPushButton>(name);
    QVERIFY2(button->isVisible() && button->isEnabled(), name);
    button->click();
}

void TestSetupWizard::connectUsb(const QString& port)
{
    auto* list = widget<QListWidget>("portList");
    for (int row = 0; row < list->count(); ++row) {
        if (list->item(row)->data(Qt::UserRole).toString() == port)
            list->setCurrentRow(row);
    }
    click("connectButton");
}

void TestSetupWizard::connectNetwork(const QString& typed)
{
    widget<QRadioButton>("useNetwork")->setChecked(true);
    widget<QLineEdit>("addressEdit")->setText(typed);
    click("connectButton");
}

void TestSetupWizard::signIn(const QString& password)
{
    QTRY_VERIFY(widget<QLineEdit>("passwordEdit")->isVisible());
    widget<QLineEdit>("passwordEdit")->setText(password);
    click("signInButton");
}

void TestSetupWizard::goToPage(const char* name)
{
    QTRY_VERIFY(widget<QPushButton>("nextButton")->isVisible());
    while (widget<QPushButton>("backButton")->isEnabled())
        click("backButton");
    for (int i = 0; i < 6 && pageName() != QLatin1String(name); ++i)
        click("nextButton");
    QCOMPARE(pageName(), QLatin1String(name));
}

void TestSetupWizard::portListAndWrongThenRightPassword()
{
    m_usb->setPassword(QStringLiteral("s3cret"));
    m_app->settings().setLastUsbPort(m_usb->portPath());
    makeWizard();
    auto* list = widget<QListWidget>("portList");
    QCOMPARE(list->count(), 2);
    QCOMPARE(list->item(0)->text(), QStringLiteral("Built-in serial port"));
    QCOMPARE(list->item(1)->text(),
             QString::fromUtf8("USB JTAG/serial debug unit  – likely a Vantorelle device"));
    QCOMPARE(list->currentRow(), 1); // the port used last time
    QCOMPARE(widget("portCount")->text(),
             QStringLiteral("2 USB port(s) found. Pick the Vantorelle device."));
    savePicture(m_wizard.get(), "connection");

    click("connectButton");
    signIn(QStringLiteral("wrong"));
    QTRY_COMPARE(widget("signInMessage")->text(),
                 QStringLiteral("The device did not accept that password. Try again."));
    QVERIFY(widget("signInMessage")->styleSheet().contains(kErrorColour));
    savePicture(m_wizard.get(), "sign_in");
    signIn(QStringLiteral("s3cret"));
    QTRY_COMPARE(pageName(), QStringLiteral("wifiPanel"));
    QCOMPARE(m_wizard->session()->state(), DeviceSession::State::Ready);
}

void TestSetupWizard::forcedPasswordChange()
{
    m_usb->admin()->setMustChangePassword(true);
    makeWizard();
    connectUsb(m_usb->portPath());
    signIn(QStringLiteral("admin"));
    QTRY_VERIFY(widget<QLineEdit>("newPasswordEdit")->isVisible());
    QCOMPARE(widget<QLineEdit>("currentPasswordEdit")->text(), QStringLiteral("admin"));
    widget<QLineEdit>("newPasswordEdit")->setText(QStringLiteral("better-one"));
    widget<QLineEdit>("confirmPasswordEdit")->setText(QStringLiteral("better-two"));
    click("changePasswordButton");
    QCOMPARE(widget("signInMessage")->text(), QStringLiteral("The new passwords do not match."));
    QVERIFY(!m_usb->admin()->methodsSeen().contains(QStringLiteral("changePassword")));
    savePicture(m_wizard.get(), "change_password");

    widget<QLineEdit>("confirmPasswordEdit")->setText(QStringLiteral("better-one"));
    click("changePasswordButton");
    QTRY_COMPARE(pageName(), QStringLiteral("wifiPanel"));
    QCOMPARE(m_usb->admin()->password(), QStringLiteral("better-one"));

    // Closing lets the device go; the wizard opens at the connection again.
    QPointer<DeviceSession> session = m_wizard->session().get();
    m_wizard->reject();
    QVERIFY(!m_wizard->session());
    QTRY_VERIFY(!session);
    QCOMPARE(pageName(), QStringLiteral("connectionPage"));
}

void TestSetupWizard::linkFailuresShownAsTheyAre_data()
{
    QTest::addColumn<bool>("silent"); // the port is there but nothing answers
    QTest::addColumn<QString>("sentence");
    QTest::newRow("no_response") << true
                                 << "This USB port did not answer like a Vantorelle device. "
                                    "Check the cable and that the device has finished starting.";
    QTest::newRow("open_failed") << false << QString();
}

void TestSetupWizard::linkFailuresShownAsTheyAre()
{
    QFETCH(bool, silent);
    QFETCH(QString, sentence);
    const QString missing = m_dir.filePath("no-such-tty");
    makeWizard({{missing, QStringLiteral("Unplugged adapter"), false}});
    m_usb->setAnswersHello(!silent);
    connectUsb(silent ? m_usb->portPath() : missing);
    QLabel* message = widget("connectionMessage");
    QTRY_VERIFY(message->styleSheet().contains(kErrorColour));
    if (silent)
        QCOMPARE(message->text(), sentence);
    else
        QVERIFY(message->text().startsWith(QStringLiteral("Could not open the USB port")));
    QCOMPARE(pageName(), QStringLiteral("connectionPage"));
    QVERIFY(widget<QPushButton>("connectButton")->isEnabled());
}

void TestSetupWizard::networkAddress_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("shown"); // the address field afterwards
    QTest::addColumn<QString>("sentence");
    const QString unreachable =
        QStringLiteral("Could not reach %1 on your network. Check the address, and that this "
                       "computer and the device are on the same network.");
    QTest::newRow("device number")
        << "7"
        << "vantorelle-0007.local" << unreachable.arg("vantorelle-0007.local");
    QTest::newRow("with a space") << "court one"
                                  << "court one"
                                  << "That address cannot be used. Type the device's number (such "
                                     "as 12), its name or its IP address.";
    const QString closed = QStringLiteral("127.0.0.1:%1").arg(freePort());
    QTest::newRow("nobody there") << "http://" + closed + "/setup" << closed
                                  << unreachable.arg("127.0.0.1");
}

void TestSetupWizard::networkAddress()
{
    QFETCH(QString, typed);
    QFETCH(QString, shown);
    QFETCH(QString, sentence);
    makeWizard();
    connectNetwork(typed);
    QTRY_COMPARE(widget("connectionMessage")->text(), sentence);
    QCOMPARE(widget<QLineEdit>("addressEdit")->text(), shown);
    QCOMPARE(pageName(), QStringLiteral("connectionPage"));
}

void TestSetupWizard::localFeedStoredInSettings()
{
    sim::LanDevice lan;
    QVERIFY(lan.start());
    makeWizard();
    connectNetwork(QStringLiteral("http://%1/").arg(lan.address()));
    signIn(QStringLiteral("admin"));
    QTRY_COMPARE(pageName(), QStringLiteral("wifiPanel"));
    for (const char* page : {"wifiPanel", "controllerPanel", "wirelessPanel", "localFeedPage",
                             "cloudPage", "finishPage"}) {
        goToPage(page);
        savePicture(m_wizard.get(), QString::fromLatin1(page));
    }
    goToPage("localFeedPage");
    click("enableLiveData");
    QTRY_VERIFY(widget("localFeedMessage")->text().startsWith(QStringLiteral("Stored for")));
    const QString token = lan.responder().apiToken();
    QVERIFY(!token.isEmpty());
    const QJsonObject saved = QJsonDocument::fromJson(readFile(m_dir.filePath("settings.json")))
                                  .object()
                                  .value("lan")
                                  .toObject()
                                  .value(kDeviceId)
                                  .toObject();
    // The feed has its own port: the web interface's is not kept.
    QCOMPARE(saved.value("host").toString(), QStringLiteral("127.0.0.1"));
    QCOMPARE(saved.value("token").toString(), token);
    QCOMPARE(saved.value("name").toString(), kDeviceName);
    savePicture(m_wizard.get(), "local_feed_stored");
}

// Over the cable: the device joins Wi-Fi (a wrong password first), reads another controller,
// and its local-network live data then uses the address it got on Wi-Fi.
void TestSetupWizard::usbDeviceJoinsWifiThenFeedsTheNetwork()
{
    makeWizard();
    connectUsb(m_usb->portPath());
    signIn(QStringLiteral("admin"));
    QTRY_COMPARE(pageName(), QStringLiteral("wifiPanel"));
    QTRY_VERIFY(widget<QPushButton>("scanWifi")->isEnabled());
    click("scanWifi");
    auto* networks = widget<QListWidget>("networkList");
    QTRY_COMPARE(networks->count(), 4);
    networks->setCurrentRow(0);
    widget<QLineEdit>("wifiPassword")->setText(QStringLiteral("short"));
    click("joinWifi");
    QLabel* wifiMessage = m_wizard->currentPage()->findChild<QLabel*>("panelMessage");
    QTRY_COMPARE(wifiMessage->text(), QStringLiteral("The device could not join Arena-Staff: "
                                                     "wrong password. Check the password and "
                                                     "try again."));
    widget<QLineEdit>("wifiPassword")->setText(QStringLiteral("puck-drop-7"));
    click("joinWifi");
    QTRY_COMPARE(wifiMessage->text(), QStringLiteral("Joined Arena-Staff (192.168.1.57)."));

    goToPage("controllerPanel");
    auto* manufacturer = widget<QComboBox>("controllerManufacturer");
    QTRY_VERIFY(manufacturer->count() > 1);
    const int other = manufacturer->currentIndex() == 0 ? 1 : 0;
    manufacturer->setCurrentIndex(other);
    Q_EMIT manufacturer->activated(other);
    click("setController");
    QTRY_COMPARE(m_usb->admin()->controller().value("manufacturer").toString(),
                 manufacturer->currentData().toString());

    goToPage("localFeedPage");
    click("enableLiveData");
    QTRY_VERIFY(widget("localFeedMessage")->text().startsWith(QStringLiteral("Stored for")));
    const LanEntry lan = m_app->settings().lanEntry(kDeviceId);
    QCOMPARE(lan.host, QStringLiteral("192.168.1.57"));
    QCOMPARE(lan.token, m_usb->admin()->apiToken());
}

// The port belongs to a wireless receiver: no sign-in, and only the receiver's settings.
void TestSetupWizard::receiverKeyGenerated()
{
    m_usb->setRole(sim::UsbDevice::Role::Receiver);
    makeWizard();
    connectUsb(m_usb->portPath());
    QTRY_COMPARE(pageName(), QStringLiteral("wirelessPanel"));
    QVERIFY(!m_usb->admin()->methodsSeen().contains(QStringLiteral("login")));
    QTRY_VERIFY(widget<QPushButton>("generateReceiverKey")->isEnabled());
    click("generateReceiverKey");
    QTRY_VERIFY(!m_usb->receiverKey().isEmpty());
    QTRY_COMPARE(widget<QLineEdit>("receiverKey")->text(), m_usb->receiverKey());
    QLabel* shown = m_wizard->currentPage()->findChild<QLabel*>("panelMessage");
    QCOMPARE(shown->text(), QStringLiteral("The receiver's new key: %1").arg(m_usb->receiverKey()));
    widget<QSpinBox>("receiverChannel")->setValue(11);
    click("applyReceiver");
    QTRY_COMPARE(m_usb->receiverChannel(), 11);
    savePicture(m_wizard.get(), "receiver");

    // The receiver hands on what the paired device sends.
    goToPage("finishPage");
    click("useForLiveData");
    SourceManager* manager = m_app->sourceManager();
    QCOMPARE(manager->status(),
             QStringLiteral("Connected to Vantorelle Receiver, waiting for scoreboard data"));
    m_usb->sendEnvelope({{"type", "state"}, {"fields", QJsonObject{{"home_score", 4}}}});
    QTRY_COMPARE(m_app->live().value(QStringLiteral("home_score")), QStringLiteral("4"));
}

// The choice is there only with a helper; through it the device is found, paired, signed in
// to, and followed for live data.
void TestSetupWizard::bluetoothOnlyWithItsHelper()
{
    makeWizard();
    QVERIFY(!m_wizard->findChild<QRadioButton*>("useBluetooth"));

    qputenv("VANTORELLE_BLE_SIM_PASSKEY", "482913");
    BleHelperBridge bridge({.startTimeoutMs = 5000, .requestTimeoutMs = 3000, .scanMs = 50});
    bridge.setHelperPath(QStringLiteral(VANTORELLE_BLE_SIM));
    makeWizard({}, &bridge);
    widget<QRadioButton>("useBluetooth")->setChecked(true);
    QVERIFY(!widget<QListWidget>("portList")->isVisible());
    click("scanBluetooth");
    auto* found = widget<QListWidget>("bluetoothList");
    QTRY_COMPARE(found->count(), 1);
    QCOMPARE(found->item(0)->text(),
             QStringLiteral("Vantorelle 0042 (F4:12:FA:00:00:42, -58 dBm)"));
    QCOMPARE(widget("bluetoothCount")->text(), QStringLiteral("1 Bluetooth device(s) found."));
    savePicture(m_wizard.get(), "connection_bluetooth");

    click("connectButton"); // no passkey yet
    QTRY_COMPARE(widget("connectionMessage")->text(),
                 QStringLiteral("The device did not accept the pairing passkey."));
    widget<QLineEdit>("blePasskeyEdit")->setText(QStringLiteral("482913"));
    click("connectButton");
    signIn(QStringLiteral("admin"));
    QTRY_COMPARE(pageName(), QStringLiteral("wifiPanel"));
    goToPage("finishPage");
    click("useForLiveData");
    SourceManager* manager = m_app->sourceManager();
    QCOMPARE(manager->status(),
             QStringLiteral("Connected to Vantorelle 0042, waiting for scoreboard data"));
    QTRY_COMPARE(manager->status(), QStringLiteral("Live from Vantorelle 0042"));
    QVERIFY(!m_app->live().value(QStringLiteral("clock")).isEmpty());
    m_wizard.reset();
    m_app.reset(); // the session and its link go before the bridge
    qunsetenv("VANTORELLE_BLE_SIM_PASSKEY");
}

void TestSetupWizard::addedToPortalAccount()
{
    m_portal->addDevice(QString(), {kDeviceId, QStringLiteral("Court 3")});
    makeWizard();
    connectUsb(m_usb->portPath());
    signIn(QStringLiteral("admin"));
    goToPage("cloudPage");
    QVERIFY(!widget<QPushButton>("addToAccount")->isVisible()); // not signed in yet
    m_app->portal().signIn(kEmail, kPassword, [](const PortalResult&) {});
    QTRY_VERIFY(widget<QPushButton>("addToAccount")->isVisible());
    QVERIFY(m_app->devices().isEmpty());
    click("addToAccount");
    QTRY_COMPARE(widget("cloudMessage")->text(),
                 QStringLiteral("The device is now on your account."));
    QCOMPARE(m_app->devices().size(), 1);
    QCOMPARE(m_app->devices().first().id, kDeviceId);
    savePicture(m_wizard.get(), "cloud_added");
}

void TestSetupWizard::finishIntoLiveData()
{
    makeWizard();
    connectUsb(m_usb->portPath());
    signIn(QStringLiteral("admin"));
    goToPage("finishPage");
    click("useForLiveData");
    QCOMPARE(m_wizard->result(), int(QDialog::Accepted));
    QVERIFY(!m_wizard->session());
    SourceManager* manager = m_app->sourceManager();
    QCOMPARE(manager->status(),
             QStringLiteral("Connected to %1, waiting for scoreboard data").arg(kDeviceName));
    QCOMPARE(m_app->settings().lastUsbPort(), m_usb->portPath());
    QCOMPARE(m_app->relayStatusLines().size(), 1);
    m_usb->sendEnvelope({{"type", "state"}, {"fields", QJsonObject{{"home_score", 7}}}});
    QTRY_COMPARE(manager->status(), QStringLiteral("Live from %1").arg(kDeviceName));
    QCOMPARE(m_app->live().value(QStringLiteral("home_score")), QStringLiteral("7"));
    m_wizard.reset(); // the live data keeps the session
    m_usb->sendEnvelope({{"type", "state"}, {"fields", QJsonObject{{"home_score", 9}}}});
    QTRY_COMPARE(m_app->live().value(QStringLiteral("home_score")), QStringLiteral("9"));
}

QTEST_MAIN(TestSetupWizard)
#include "tst_setup_wizard.moc"
