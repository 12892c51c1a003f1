// The bridge program against a simulated device on a pseudo-terminal.

#include "common/test_support.h"
#include "field_files.h"
#include "sim/admin_responder.h"
#include "sim/usb_device.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
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
    // HTTP alone on its own port, and one text file per field that follows its value.
    void httpAndFiles()
    {
        VANTORELLE_NEEDS_PTY();
        sim::UsbDevice device;
        QVERIFY(device.start());
        QTemporaryDir folder;
        const QString files = folder.filePath("fields");
        const quint16 port = test::freePort();
        Bridge bridge({"watch", "--usb", device.portPath(), "--password", "admin", "--http",
                       QString::number(port), "--files", files});
        QTRY_VERIFY(bridge.err().contains("Serving the live data over HTTP on 127.0.0.1 port " +
                                          QByteArray::number(port) + "\n"));
        QTRY_VERIFY(
            bridge.err().endsWith("\nConnected to Vantorelle 0042, waiting for scoreboard data\n"));
        device.sendEnvelope(
            {{"sport", "hockey"}, {"fields", QJsonObject{{"home_score", 3}, {"away_score", 1}}}});
        QTRY_COMPARE(test::readFile(files + "/home_score.txt"), QByteArray("3"));
        QCOMPARE(test::readFile(files + "/away_score.txt"), QByteArray("1"));

        test::LineClient client;
        QVERIFY(client.connectTo("127.0.0.1", port));
        client.send("GET /snapshot.xml HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QVERIFY(client.waitForClose());
        QCOMPARE(client.socket().readAll(),
                 QByteArray("HTTP/1.1 200 OK\r\nContent-Type: application/xml; charset=utf-8\r\n"
                            "Content-Length: 138\r\nCache-Control: no-store\r\n"
                            "Access-Control-Allow-Origin: *\r\nX-Content-Type-Options: nosniff\r\n"
                            "Connection: close\r\n\r\n"
                            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<scoreboard><sport>hockey"
                            "</sport><away_score>1</away_score><home_score>3</home_score>"
                            "</scoreboard>\n"));

        device.sendEnvelope({{"fields", QJsonObject{{"home_score", 4}}}});
        QTRY_COMPARE(test::readFile(files + "/home_score.txt"), QByteArray("4"));
        QCOMPARE(test::readFile(files + "/away_score.txt"), QByteArray("1"));
        QCOMPARE(QDir(files).entryList(QDir::Files),
                 QStringList({"away_score.txt", "home_score.txt"}));
        bridge.process.terminate();
        QCOMPARE(bridge.finish(), 0);
    }
    // A file is written when its value changed since the last write, emptied when its field goes
    // away, and a name that could leave the folder gets none.
    void fieldFiles()
    {
        QTemporaryDir folder;
        FieldFiles files(folder.path());
        const QString a = folder.filePath("a.txt"), b = folder.filePath("b-2.txt");
        QCOMPARE(files.update(
                     {{"a", "1"}, {"b-2", "\xc3\xa9"}, {"../up", "x"}, {"nul", "x"}, {"a b", "x"}}),
                 QStringList());
        QCOMPARE(test::readFile(a), QByteArray("1"));
        QCOMPARE(test::readFile(b), QByteArray("\xc3\xa9"));
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files), QStringList({"a.txt", "b-2.txt"}));
        QVERIFY(!QFile::exists(folder.filePath("../up.txt")));
        // Changed behind its back, a file stays as it is until its own value changes.
        test::writeFile(a, "other");
        QCOMPARE(files.update({{"a", "1"}}), QStringList());
        QCOMPARE(test::readFile(a), QByteArray("other"));
        QCOMPARE(test::readFile(b), QByteArray(""));
        QVERIFY(QFile::exists(b));
        QCOMPARE(files.update({{"a", "2"}, {"b-2", "3"}}), QStringList());
        QCOMPARE(test::readFile(a), QByteArray("2"));
        QCOMPARE(test::readFile(b), QByteArray("3"));
        // A folder that cannot be made: the failure is told, and the write is tried again later.
        test::writeFile(folder.filePath("plain"), "a file");
        FieldFiles blocked(folder.filePath("plain/sub"));
        QCOMPARE(blocked.update({{"a", "1"}}),
                 QStringList({"Could not write " +
                              QDir::toNativeSeparators(folder.filePath("plain/sub/a.txt"))}));
        QCOMPARE(blocked.update({{"a", "1"}}).size(), 1);
    }
    void badUsage()
    {
        for (const auto& [arguments, problem] :
             {std::pair<QStringList, QByteArray>{{}, "no command given"},
              {{"watch", "--lan", "h"}, "--token is needed with --lan, and only there"},
              {{"call", "--usb", "p", "m"}, "call needs --password"},
              {{"watch", "--usb", "p", "--serve", "9001", "--http", "9001"},
               "--serve and --http need different ports (--serve answers HTTP as well)"},
              {{"watch", "--usb", "p", "--http", "x"}, "--http takes a port from 0 to 65535"}}) {
            Bridge bridge(arguments);
            QCOMPARE(bridge.finish(), 2);
            QVERIFY2(bridge.err().startsWith("vantorelle-bridge: " + problem + "\n\nUsage:\n"),
                     bridge.errors);
        }
    }
};

QTEST_GUILESS_MAIN(TestBridge)
#include "tst_bridge.moc"
