// The bridge program against a simulated device on a pseudo-terminal.

#include "common/test_support.h"
#include "sim/admin_responder.h"
#include "sim/usb_device.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTest>

using namespace vantorelle;

namespace {

// The bridge program with what it wrote so far. The event loop must turn while it runs: the
// simulated device lives in this process.
struct Bridge
{
    explicit Bridge(const QStringList& arguments) { process.start(VANTORELLE_BRIDGE, arguments); }
    // Lines as written; a Windows console program ends them with CR LF.
    QByteArray& out() { return (output += process.readAllStandardOutput()).replace("\r\n", "\n"); }
    QByteArray& err() { return (errors += process.readAllStandardError()).replace("\r\n", "\n"); }
    // The exit code, or -1 on a crash or no end.
    int finish()
    {
        if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 20000))
            return -1;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    QProcess process;
    QByteArray output;
    QByteArray errors;
};

} // namespace

class TestBridge : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void watchAndCall()
    {
        VANTORELLE_NEEDS_PTY();
        sim::UsbDevice device;
        device.admin()->setResult("getStatus", {{"marker", "m-17"}});
        QVERIFY(device.start());
        const quint16 port = test::freePort();
        Bridge bridge({"watch", "--usb", device.portPath(), "--password", "admin", "--json",
                       "--serve", QString::number(port)});
        QTRY_VERIFY(bridge.err().contains("Sharing the live data on 127.0.0.1 port " +
                                          QByteArray::number(port) + "\n"));
        QTRY_VERIFY(
            bridge.err().endsWith("\nConnected to Vantorelle 0042, waiting for scoreboard data\n"));
        test::LineClient client;
        QVERIFY(client.connectTo("127.0.0.1", port));
        QVERIFY(!client.readLine().isEmpty()); // the snapshot every client starts with
        device.sendEnvelope({{"sport", "hockey"}, {"fields", QJsonObject{{"home_score", 3}}}});
        // The program prints the very lines it shares.
        const QByteArray shared = client.readLine();
        QCOMPARE(QJsonDocument::fromJson(shared)["fields"],
                 QJsonValue(QJsonObject{{"home_score", "3"}}));
        QTRY_VERIFY(bridge.out().endsWith(shared + "\n"));
        client.send("status\n");
        QJsonObject status = QJsonDocument::fromJson(R"({"ok":true,"op":"status","signed_in":false,
            "account":"","source":"usb","live":true,"message":"Live from Vantorelle 0042",
            "sport":"hockey"})")
                                 .object();
        status.insert("device", device.portPath());
        QCOMPARE(client.readObject(), status);
        bridge.process.terminate();
        QCOMPARE(bridge.finish(), 0);
        QVERIFY(client.waitForClose());
        // One admin request, once the port is free again: exit code, standard output and the last
        // line on standard error.
        auto call = [&](const char* password, const char* method) {
            Bridge bridge({"call", "--usb", device.portPath(), "--password", password, method});
            const int code = bridge.finish();
            return QList<QByteArray>{QByteArray::number(code), bridge.out(),
                                     bridge.err().trimmed().split('\n').constLast()};
        };
        QCOMPARE(call("admin", "getStatus"), QList<QByteArray>({"0", "{\"marker\":\"m-17\"}\n",
                                                                "Signed in to Vantorelle 0042"}));
        QCOMPARE(call("guess", "getStatus"),
                 QList<QByteArray>({"1", "", "Vantorelle 0042 did not accept the password."}));
    }
    void badUsage()
    {
        for (const auto& [arguments, problem] :
             {std::pair<QStringList, QByteArray>{{}, "no command given"},
              {{"watch", "--lan", "h"}, "--token is needed with --lan, and only there"},
              {{"call", "--usb", "p", "m"}, "call needs --password"}}) {
            Bridge bridge(arguments);
            QCOMPARE(bridge.finish(), 2);
            QVERIFY2(bridge.err().startsWith("vantorelle-bridge: " + problem + "\n\nUsage:\n"),
                     bridge.errors);
        }
    }
};

QTEST_GUILESS_MAIN(TestBridge)
#include "tst_bridge.moc"
