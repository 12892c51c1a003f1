// The Bluetooth route against the simulated helper, which the bridge starts as it starts the real
// one; its options come from the environment, as the bridge passes none.

#include "ble_helper_bridge.h"
#include "ble_link.h"
#include "common/test_support.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>
#include <optional>

using namespace vantorelle;

static const QString Address = "F4:12:FA:00:00:42";

static bool processAlive(qint64 pid)
{
    return pid > 0 && ::kill(pid_t(pid), 0) == 0;
}

class TestBleLink : public QObject
{
    Q_OBJECT

    std::unique_ptr<BleHelperBridge> m_bridge;
    std::unique_ptr<BleLink> m_link; // to the first device, without a passkey
    std::optional<QSignalSpy> m_opened, m_closed;

private Q_SLOTS:
    void init()
    {
        m_bridge = std::make_unique<BleHelperBridge>(BleBridgeSettings{5000, 2000, 50, 1000});
        m_bridge->setHelperPath(VANTORELLE_BLE_SIM);
        QVERIFY(m_bridge->isAvailable());
        m_link = std::make_unique<BleLink>(Address, QString(), QString(), m_bridge.get());
        m_opened.emplace(m_link.get(), &DeviceLink::opened);
        m_closed.emplace(m_link.get(), &DeviceLink::closed);
    }
    void cleanup()
    {
        m_opened.reset(), m_closed.reset();
        m_link.reset();
        m_bridge.reset();
        qunsetenv("VANTORELLE_BLE_SIM_PASSKEY");
        qunsetenv("VANTORELLE_BLE_SIM_DROP_AFTER_MS");
    }
    void helperMissingOrFailing_data()
    {
        QTest::addColumn<QString>("script"); // empty: the path is a directory
        QTest::addColumn<bool>("executable");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        const QString missing = "Bluetooth needs the Vantorelle Bluetooth helper, which is not "
                                "installed with this plug-in.";
        const QString failed = "The Bluetooth helper could not start (%1).";
        QTest::newRow("directory") << "" << true << "helper_missing" << missing;
        QTest::newRow("not executable") << "exit 0" << false << "helper_missing" << missing;
        QTest::newRow("silent") << "exec sleep 30" << true << "helper_failed"
                                << failed.arg("it did not answer");
        QTest::newRow("no port") << "echo '{\"port\":0}'; exec sleep 30" << true << "helper_failed"
                                 << failed.arg("it named no port");
        QTest::newRow("ends") << "exit 0" << true << "helper_failed" << failed.arg("it ended");
    }
    void helperMissingOrFailing()
    {
        QFETCH(QString, script);
        QFETCH(bool, executable);
        QFETCH(QString, code);
        QTemporaryDir dir;
        QString path = dir.path();
        if (!script.isEmpty()) {
            path = dir.filePath("vantorelle-ble-helper");
            test::writeFile(path, "#!/bin/sh\n" + script.toUtf8() + '\n');
            if (executable)
                QFile::setPermissions(path, QFile::ReadOwner | QFile::ExeOwner);
        }
        m_bridge->setHelperPath(path);
        m_bridge->setSettings({.startTimeoutMs = 300, .requestTimeoutMs = 5000, .scanMs = 50});
        QList<RpcResult> answers;
        m_bridge->scan([&](const RpcResult& result, auto&) { answers.append(result); });
        const qint64 pid = m_bridge->helperProcessId();
        QCOMPARE(pid == 0, code == "helper_missing");
        QTRY_COMPARE(answers.size(), 1);
        QCOMPARE(answers.first().code, code);
        QTEST(answers.first().message, "message");
        QVERIFY(!processAlive(pid));
    }
    void opening_data()
    {
        QTest::addColumn<QString>("passkey");
        QTest::addColumn<int>("requestTimeoutMs");
        QTest::addColumn<QString>("failure"); // empty: opened
        const QString refused = "The device did not accept the pairing passkey.";
        QTest::newRow("right passkey") << "482913" << 2000 << "";
        QTest::newRow("wrong passkey") << "111111" << 2000 << refused;
        QTest::newRow("no passkey") << "" << 2000 << refused;
        QTest::newRow("no answer in time")
            << "482913" << 1 << "The Bluetooth helper did not answer in time.";
    }
    void opening()
    {
        QFETCH(QString, passkey);
        QFETCH(int, requestTimeoutMs);
        QFETCH(QString, failure);
        qputenv("VANTORELLE_BLE_SIM_PASSKEY", "482913");
        m_bridge->setSettings({5000, requestTimeoutMs, 50, 1000});
        BleLink link(Address, "Court 3", passkey, m_bridge.get());
        QCOMPARE(link.kind(), "ble");
        QVERIFY(link.isRemote());
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        QSignalSpy sendFailed(link.adminTransport(), &RpcTransport::sendFailed);
        link.open();
        QTRY_COMPARE(opened.count() + failed.count(), 1);
        QCOMPARE(link.adminTransport()->isOpen(), failure.isEmpty());
        link.adminTransport()->send("{}");
        if (failure.isEmpty()) {
            QCOMPARE(opened.first().first().toJsonObject().value("name"), "Vantorelle 0042");
            QCOMPARE(sendFailed.count(), 0);
        } else {
            QCOMPARE(failed.first(), (QVariantList{"open_failed", failure}));
            QCOMPARE(sendFailed.first(),
                     (QVariantList{"disconnected", "The Bluetooth device is not connected"}));
        }
    }
    void deviceOutOfRangeClosesTheLink()
    {
        qputenv("VANTORELLE_BLE_SIM_DROP_AFTER_MS", "300");
        m_link->open();
        QTRY_COMPARE(m_closed->count(), 1);
        QCOMPARE(m_opened->count(), 1);
        QCOMPARE(m_closed->first().first(), "The device went out of range.");
        QVERIFY(!m_link->adminTransport()->isOpen());
        QVERIFY(m_bridge->isRunning()); // only the device went
    }
    void helperEndsOnShutdownOrKill()
    {
        QSignalSpy running(m_bridge.get(), &BleHelperBridge::runningChanged);
        m_link->open();
        QTRY_COMPARE(m_opened->count(), 1);
        const qint64 first = m_bridge->helperProcessId();
        QVERIFY(processAlive(first));
        m_bridge->shutdown();
        QVERIFY(!processAlive(first)); // gone, and reaped, when shutdown() returns
        QVERIFY(!m_bridge->isRunning());
        QCOMPARE(m_closed->count(), 1);
        m_link->open(); // the next use starts a fresh helper
        QTRY_COMPARE(m_opened->count(), 2);
        const qint64 second = m_bridge->helperProcessId();
        QVERIFY(second != first && processAlive(second));
        RpcResult scan;
        m_bridge->scan([&](const RpcResult& result, auto&) { scan = result; });
        ::kill(pid_t(second), SIGKILL);
        QTRY_COMPARE(scan.code, "helper_stopped");
        QCOMPARE(scan.message, "The Bluetooth helper stopped.");
        QCOMPARE(m_closed->count(), 2);
        QCOMPARE(m_closed->last().first(), "The Bluetooth helper stopped.");
        QVERIFY(!m_bridge->isRunning());
        QCOMPARE(running, (QList<QVariantList>{{true}, {false}, {true}, {false}}));
    }
    void lateConnectionAfterCloseIsLetGo()
    {
        m_link->open();
        m_link->close();
        // A scan asked after the connection is answered after it too.
        bool scanned = false;
        m_bridge->scan([&](const RpcResult& result, auto&) { scanned = result.ok; });
        QTRY_VERIFY(scanned);
        QCOMPARE(m_opened->count(), 0);
        QVERIFY(!m_link->adminTransport()->isOpen());
        QVERIFY(!m_bridge->send(Address, "{}")); // the bridge let the device go again
    }
};

QTEST_GUILESS_MAIN(TestBleLink)
#include "tst_ble_link.moc"
