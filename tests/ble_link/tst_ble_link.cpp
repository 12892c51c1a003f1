// The Bluetooth route against the simulated helper, started by the bridge as a program of its
// own: the helper's start and end, scanning, pairing, and a device session over the link.

#include "admin/device_session.h"
#include "common/test_support.h"
#include "links/ble_helper_bridge.h"
#include "links/ble_link.h"
#include "sim/ble_helper.h"

#include <QFile>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>

using namespace vantorelle;
using namespace vantorelle::test;
using State = DeviceSession::State;

namespace {

const QString Address = QString::fromLatin1(sim::BleHelper::FirstAddress);
const BleBridgeSettings Fast{
    .startTimeoutMs = 5000, .requestTimeoutMs = 2000, .scanMs = 50, .quitGraceMs = 1000};
const DeviceSessionSettings FastSession{
    .pollIntervalMs = 50, .requestTimeoutMs = 2000, .busyRetryDelayMs = 10};

bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

// The simulated helper takes its options from the environment, as the bridge passes none.
void simulate(const char* option, const QByteArray& value)
{
    qputenv(QByteArray("VANTORELLE_BLE_SIM_") + option, value);
}

} // namespace

class TestBleLink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void withoutHelperNothingStarts();
    void scanListsDevicesInReach();
    void connectNeedsThePasskey_data();
    void connectNeedsThePasskey();
    void sessionSignsInAndPolls();
    void restartEndsInRestarting();
    void deviceOutOfRangeIsLost();
    void helperDeathFailsWhatWaits();
    void shutdownEndsTheHelper();
    void helperThatNamesNoPort();
    void lateConnectionAfterCloseIsLetGo();
    void helperServesOnlyTheGreetedConnection();

private:
    std::unique_ptr<BleHelperBridge> m_bridge;
};

void TestBleLink::init()
{
    m_bridge = std::make_unique<BleHelperBridge>(Fast);
    m_bridge->setHelperPath(QStringLiteral(VANTORELLE_BLE_SIM));
    QVERIFY(m_bridge->isAvailable());
}

void TestBleLink::cleanup()
{
    m_bridge.reset();
    for (const char* option : {"PASSKEY", "DEVICES", "DROP_AFTER_MS", "REPLY_DELAY_MS"})
        qunsetenv(QByteArray("VANTORELLE_BLE_SIM_") + option);
}

void TestBleLink::withoutHelperNothingStarts()
{
    for (const QString& path : {QString(), QStringLiteral("/nonexistent/vantorelle-ble-helper")}) {
        m_bridge->setHelperPath(path);
        QVERIFY(!m_bridge->isAvailable());
        RpcResult answer;
        int calls = 0;
        m_bridge->scan([&](const RpcResult& result, const QList<BleDevice>&) {
            answer = result;
            ++calls;
        });
        QCOMPARE(calls, 1);
        QCOMPARE(answer.code, QStringLiteral("helper_missing"));
        QCOMPARE(answer.message, QStringLiteral("Bluetooth needs the Vantorelle Bluetooth helper, "
                                                "which is not installed with this plug-in."));
        QCOMPARE(m_bridge->helperProcessId(), 0);
    }
}

void TestBleLink::scanListsDevicesInReach()
{
    simulate("DEVICES", "2");
    QSignalSpy running(m_bridge.get(), &BleHelperBridge::runningChanged);
    QList<BleDevice> found;
    bool ok = false;
    m_bridge->scan([&](const RpcResult& result, const QList<BleDevice>& devices) {
        ok = result.ok;
        found = devices;
    });
    QTRY_VERIFY(ok);
    QCOMPARE(running.count(), 1);
    QCOMPARE(found.size(), 2);
    QCOMPARE(found.at(0).address, Address);
    QCOMPARE(found.at(0).name, QStringLiteral("Vantorelle 0042"));
    QCOMPARE(found.at(1).name, QStringLiteral("Vantorelle 0043"));
    QVERIFY(found.at(0).rssi > found.at(1).rssi);
}

void TestBleLink::connectNeedsThePasskey_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("code"); // empty: connected
    QTest::newRow("right") << "482913"
                           << "";
    QTest::newRow("wrong") << "111111"
                           << "pairing_failed";
    QTest::newRow("none") << ""
                          << "pairing_failed";
}

void TestBleLink::connectNeedsThePasskey()
{
    QFETCH(QString, given);
    QFETCH(QString, code);
    simulate("PASSKEY", "482913");
    BleLink link(Address, QStringLiteral("Court 3"), given, m_bridge.get());
    QCOMPARE(link.kind(), QStringLiteral("ble"));
    QVERIFY(link.isRemote());
    QSignalSpy opened(&link, &DeviceLink::opened);
    QSignalSpy failed(&link, &DeviceLink::failed);
    link.open();
    QTRY_COMPARE(opened.count() + failed.count(), 1);
    QCOMPARE(link.adminTransport()->isOpen(), code.isEmpty());
    if (code.isEmpty()) {
        const QJsonObject info = opened.first().at(0).toJsonObject();
        QCOMPARE(info.value("name").toString(), QStringLiteral("Vantorelle 0042"));
        QCOMPARE(info.value("transport").toString(), QStringLiteral("ble"));
    } else {
        QCOMPARE(failed.first().at(0).toString(), QStringLiteral("open_failed"));
        QCOMPARE(failed.first().at(1).toString(),
                 QStringLiteral("The device did not accept the pairing passkey."));
    }
}

void TestBleLink::sessionSignsInAndPolls()
{
    BleLink link(Address, {}, {}, m_bridge.get());
    DeviceSession session(FastSession);
    session.setPassword(QStringLiteral("not-it"));
    QSignalSpy envelopes(&session, &DeviceSession::envelope);
    session.start(&link);
    QTRY_COMPARE(session.state(), State::NeedsPassword);
    session.signIn(QStringLiteral("admin"));
    QTRY_COMPARE(session.state(), State::Ready);
    QTRY_VERIFY(envelopes.count() >= 2); // a remote device is polled for its live data
    const QJsonObject live = envelopes.last().at(0).toJsonObject();
    QCOMPARE(live.value("sport").toString(), QStringLiteral("hockey"));
    QVERIFY(live.value("fields").toObject().contains("home_score"));

    RpcResult status;
    session.refreshStatus([&](const RpcResult& result) { status = result; });
    QTRY_VERIFY(status.ok);
    QCOMPARE(status.result.value("device_id").toString(), QStringLiteral("VT-0042"));
}

void TestBleLink::restartEndsInRestarting()
{
    BleLink link(Address, {}, {}, m_bridge.get());
    DeviceSession session(FastSession);
    session.setPassword(QStringLiteral("admin"));
    session.start(&link);
    QTRY_COMPARE(session.state(), State::Ready);
    bool answered = false;
    session.reboot([&](const RpcResult& result) { answered = result.ok; });
    QTRY_VERIFY(answered);
    QTRY_COMPARE(session.state(), State::Restarting);
    QVERIFY(!link.adminTransport()->isOpen());
}

void TestBleLink::deviceOutOfRangeIsLost()
{
    simulate("DROP_AFTER_MS", "300");
    BleLink link(Address, {}, {}, m_bridge.get());
    DeviceSession session(FastSession);
    session.setPassword(QStringLiteral("admin"));
    QSignalSpy states(&session, &DeviceSession::stateChanged);
    session.start(&link);
    QTRY_COMPARE(session.state(), State::Lost);
    QCOMPARE(states.last().at(1).toString(), QStringLiteral("The device went out of range."));
    QVERIFY(m_bridge->isRunning()); // only the device went
}

void TestBleLink::helperDeathFailsWhatWaits()
{
    simulate("REPLY_DELAY_MS", "10000");
    BleLink link(Address, {}, {}, m_bridge.get());
    QSignalSpy closed(&link, &DeviceLink::closed);
    QSignalSpy opened(&link, &DeviceLink::opened);
    link.open();
    QTRY_COMPARE(opened.count(), 1);
    RpcResult scan;
    m_bridge->scan([&](const RpcResult& result, const QList<BleDevice>&) { scan = result; });
    const qint64 pid = m_bridge->helperProcessId();
    QVERIFY(processAlive(pid));
    ::kill(pid_t(pid), SIGKILL);
    QTRY_COMPARE(scan.code, QStringLiteral("helper_stopped"));
    QCOMPARE(scan.message, QStringLiteral("The Bluetooth helper stopped."));
    QTRY_COMPARE(closed.count(), 1);
    QCOMPARE(closed.first().at(0).toString(), QStringLiteral("The Bluetooth helper stopped."));
    QVERIFY(!m_bridge->isRunning());
}

void TestBleLink::shutdownEndsTheHelper()
{
    BleLink link(Address, {}, {}, m_bridge.get());
    QSignalSpy opened(&link, &DeviceLink::opened);
    QSignalSpy closed(&link, &DeviceLink::closed);
    link.open();
    QTRY_COMPARE(opened.count(), 1);
    const qint64 first = m_bridge->helperProcessId();
    QVERIFY(processAlive(first));
    m_bridge->shutdown();
    QVERIFY(!processAlive(first)); // gone, and reaped, when shutdown() returns
    QVERIFY(!m_bridge->isRunning());
    QCOMPARE(closed.count(), 1);

    // The next use starts a fresh helper.
    link.open();
    QTRY_COMPARE(opened.count(), 2);
    QVERIFY(m_bridge->helperProcessId() != first);
}

void TestBleLink::helperThatNamesNoPort()
{
    QTemporaryDir dir;
    const QString script = dir.filePath("vantorelle-ble-helper");
    writeFile(script, "#!/bin/sh\nexec sleep 30\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_bridge->setHelperPath(script);
    m_bridge->setSettings({.startTimeoutMs = 300, .requestTimeoutMs = 5000, .scanMs = 50});
    RpcResult answer;
    m_bridge->scan([&](const RpcResult& result, const QList<BleDevice>&) { answer = result; });
    const qint64 pid = m_bridge->helperProcessId();
    QTRY_COMPARE(answer.code, QStringLiteral("helper_failed"));
    QCOMPARE(answer.message,
             QStringLiteral("The Bluetooth helper could not start (it did not answer)."));
    QVERIFY(!processAlive(pid));
}

void TestBleLink::lateConnectionAfterCloseIsLetGo()
{
    BleLink link(Address, {}, {}, m_bridge.get());
    QSignalSpy opened(&link, &DeviceLink::opened);
    QSignalSpy failed(&link, &DeviceLink::failed);
    link.open();
    link.close();
    // A scan asked after the connection is answered after it too.
    bool scanned = false;
    m_bridge->scan([&](const RpcResult& result, const QList<BleDevice>&) { scanned = result.ok; });
    QTRY_VERIFY(scanned);
    QCOMPARE(opened.count() + failed.count(), 0);
    QVERIFY(!link.adminTransport()->isOpen());
    QVERIFY(!m_bridge->send(Address, "{}")); // the bridge let the device go again
}

void TestBleLink::helperServesOnlyTheGreetedConnection()
{
    sim::BleHelper helper({.token = QStringLiteral("right")});
    QVERIFY(helper.start());
    QTcpSocket stranger;
    stranger.connectToHost(QHostAddress::LocalHost, helper.port());
    QVERIFY(stranger.waitForConnected(2000));
    stranger.write("{\"id\":1,\"op\":\"hello\",\"token\":\"wrong\"}\n");
    QTRY_COMPARE(stranger.state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(stranger.readAll(), QByteArray());
}

QTEST_MAIN(TestBleLink)
#include "tst_ble_link.moc"
