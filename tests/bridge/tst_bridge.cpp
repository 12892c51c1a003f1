#include "common/test_support.h"
#include "live/live_data.h"
#include "sim/admin_responder.h"
#include "sim/game.h"
#include "sim/usb_device.h"

#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;

namespace {

// The bridge program, its standard output split into lines and its standard error.
struct Bridge
{
    QProcess process;
    QList<QByteArray> lines;
    QByteArray pending;

    explicit Bridge(const QStringList& arguments)
    {
        QObject::connect(&process, &QProcess::readyReadStandardOutput, [this] { take(); });
        process.setReadChannel(QProcess::StandardOutput);
        process.start(QStringLiteral(VANTORELLE_BRIDGE), arguments);
    }
    ~Bridge()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
        }
    }
    // Waits for the end, with the event loop running (the simulated device lives in this
    // process), and returns the exit code (-1 on a crash or no end).
    int finish()
    {
        if (process.state() != QProcess::NotRunning) {
            QSignalSpy ended(&process, &QProcess::finished);
            if (!ended.wait(20000))
                return -1;
        }
        if (process.exitStatus() != QProcess::NormalExit)
            return -1;
        take();
        return process.exitCode();
    }
    void take()
    {
        pending += process.readAllStandardOutput();
        for (qsizetype end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            lines.append(pending.left(end));
            pending.remove(0, end + 1);
        }
    }
};

// The fields of an envelope as the live data stores them: every value as text.
QJsonObject storedFields(const QJsonObject& envelope)
{
    QJsonObject fields;
    const QJsonObject sent = envelope.value(QLatin1String("fields")).toObject();
    for (auto it = sent.begin(); it != sent.end(); ++it)
        fields.insert(it.key(), LiveData::valueText(it.value()));
    return fields;
}

} // namespace

class TestBridge : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void watchPrintsAndSharesTheGame();
    void call_data();
    void call();
    void usage_data();
    void usage();
};

void TestBridge::watchPrintsAndSharesTheGame()
{
    sim::UsbDevice device;
    QVERIFY(device.start());
    QList<QJsonObject> sent;
    connect(device.game(), &sim::Game::envelopeReady, this,
            [&sent](const QJsonObject& envelope) { sent.append(storedFields(envelope)); });
    device.startGame(20);

    const quint16 port = test::freePort();
    Bridge bridge({QStringLiteral("watch"), QStringLiteral("--usb"), device.portPath(),
                   QStringLiteral("--password"), QStringLiteral("admin"), QStringLiteral("--json"),
                   QStringLiteral("--serve"), QString::number(port)});

    // Every printed snapshot with scores holds exactly the fields of one envelope the game sent.
    QList<QJsonObject> snapshots;
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
            snapshots.clear();
            for (const QByteArray& line : bridge.lines) {
                const QJsonObject snapshot = QJsonDocument::fromJson(line).object();
                if (snapshot.value(QLatin1String("fields"))
                        .toObject()
                        .contains(QLatin1String("home_score")))
                    snapshots.append(snapshot);
            }
            return snapshots.size() >= 5;
        }(),
        15000);
    for (const QJsonObject& snapshot : snapshots) {
        QCOMPARE(snapshot.value(QLatin1String("sport")).toString(), QStringLiteral("hockey"));
        QVERIFY(sent.contains(snapshot.value(QLatin1String("fields")).toObject()));
    }

    // A sharing client receives the very lines the program prints.
    test::LineClient client;
    QVERIFY(client.connectTo(QStringLiteral("127.0.0.1"), port));
    for (int i = 0; i < 3; ++i) {
        const QByteArray line = client.readLine();
        QVERIFY(!line.isEmpty());
        QTRY_VERIFY(bridge.lines.contains(line));
    }
    QVERIFY(bridge.process.readAllStandardError().contains("Live from Vantorelle 0042"));

    bridge.process.terminate();
    QCOMPARE(bridge.finish(), 0);
    QVERIFY(client.waitForClose());
}

void TestBridge::call_data()
{
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("method");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("sentence");

    QTest::newRow("signed in") << "admin"
                               << "getStatus" << 0 << QByteArray();
    QTest::newRow("wrong password")
        << "guess"
        << "getStatus" << 1 << QByteArray("did not accept the password");
    QTest::newRow("unknown method")
        << "admin"
        << "frobnicate" << 1 << QByteArray("Unknown method 'frobnicate'");
}

void TestBridge::call()
{
    QFETCH(QString, password);
    QFETCH(QString, method);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, sentence);

    sim::UsbDevice device;
    const QJsonObject status{
        {QStringLiteral("marker"), QString::number(QRandomGenerator::global()->generate())}};
    device.admin()->setResult(QStringLiteral("getStatus"), status);
    QVERIFY(device.start());

    Bridge bridge({QStringLiteral("call"), QStringLiteral("--usb"), device.portPath(),
                   QStringLiteral("--password"), password, method});
    QCOMPARE(bridge.finish(), exitCode);
    if (exitCode == 0) {
        QCOMPARE(bridge.lines.size(), 1);
        QCOMPARE(QJsonDocument::fromJson(bridge.lines.first()).object(), status);
    } else {
        QVERIFY(bridge.lines.isEmpty());
        QVERIFY2(bridge.process.readAllStandardError().contains(sentence), sentence);
    }
}

void TestBridge::usage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("ports") << QStringList{QStringLiteral("ports")} << 0;
    QTest::newRow("help") << QStringList{QStringLiteral("--help")} << 0;
    QTest::newRow("no command") << QStringList{} << 2;
    QTest::newRow("unknown command") << QStringList{QStringLiteral("frobnicate")} << 2;
    QTest::newRow("watch without a device") << QStringList{QStringLiteral("watch")} << 2;
    QTest::newRow("lan without a token")
        << QStringList{QStringLiteral("watch"), QStringLiteral("--lan"), QStringLiteral("h")} << 2;
    QTest::newRow("call without a password")
        << QStringList{QStringLiteral("call"), QStringLiteral("--usb"), QStringLiteral("p"),
                       QStringLiteral("getStatus")}
        << 2;
    QTest::newRow("params not an object")
        << QStringList{QStringLiteral("call"),       QStringLiteral("--usb"), QStringLiteral("p"),
                       QStringLiteral("--password"), QStringLiteral("x"),     QStringLiteral("m"),
                       QStringLiteral("[1]")}
        << 2;
}

void TestBridge::usage()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);

    Bridge bridge(arguments);
    QCOMPARE(bridge.finish(), exitCode);
    if (exitCode == 2)
        QVERIFY(bridge.process.readAllStandardError().contains("Usage:"));
}

QTEST_GUILESS_MAIN(TestBridge)
#include "tst_bridge.moc"
