#include "common/test_support.h"
#include "core/settings_store.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace vantorelle;
using vantorelle::test::readFile;
using vantorelle::test::writeFile;

namespace {

// Reads one setting through its getter, so a table can name the key it checks.
QVariant readSetting(const SettingsStore& store, const QString& key)
{
    if (key == "selected_device")
        return store.selectedDevice();
    if (key == "server_enabled")
        return store.serverEnabled();
    if (key == "server_port")
        return store.serverPort();
    if (key == "server_allow_network")
        return store.serverAllowNetwork();
    if (key == "share_connection")
        return store.shareConnection();
    if (key == "auto_check_updates")
        return store.autoCheckUpdates();
    if (key == "last_update_check")
        return store.lastUpdateCheck();
    if (key == "last_usb_port")
        return store.lastUsbPort();
    if (key == "routes")
        return store.route("dev1");
    if (key == "lan")
        return store.lanEntry("dev1").host;
    return {};
}

const QStringList kAllKeys = {"selected_device",
                              "server_enabled",
                              "server_port",
                              "server_allow_network",
                              "share_connection",
                              "auto_check_updates",
                              "last_update_check",
                              "last_usb_port",
                              "routes",
                              "lan"};

QVariant defaultOf(const QString& key)
{
    static const QVariantMap defaults = {{"selected_device", QString()},
                                         {"server_enabled", false},
                                         {"server_port", 9001},
                                         {"server_allow_network", false},
                                         {"share_connection", true},
                                         {"auto_check_updates", true},
                                         {"last_update_check", 0.0},
                                         {"last_usb_port", QString()},
                                         {"routes", QStringLiteral("cloud")},
                                         {"lan", QString()}};
    return defaults.value(key);
}

} // namespace

class TestSettingsStore : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_path;

    SettingsStore storeWith(const QByteArray& fileBytes)
    {
        writeFile(m_path, fileBytes);
        SettingsStore store;
        store.load(m_path);
        return store;
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        m_path = m_dir->filePath("settings.json");
    }

    void unusableDocumentReadsDefaults_data()
    {
        QTest::addColumn<QByteArray>("bytes"); // null: no file at all
        QTest::newRow("no file") << QByteArray();
        QTest::newRow("empty file") << QByteArray("");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("bare number") << QByteArray("5");
        QTest::newRow("truncated object") << QByteArray("{\"server_enabled\": true,");
    }
    void unusableDocumentReadsDefaults()
    {
        QFETCH(QByteArray, bytes);
        SettingsStore store;
        if (bytes.isNull())
            store.load(m_path);
        else
            store = storeWith(bytes);
        for (const QString& key : kAllKeys)
            QCOMPARE(readSetting(store, key), defaultOf(key));
    }

    // Each key stored with the right type, with another type, and out of range.
    void storedValues_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QVariant>("expected");
        auto row = [](const char* name, const char* key, const char* json, QVariant expected) {
            QTest::newRow(name) << QString(key) << QByteArray(json) << expected;
        };
        row("device", "selected_device", "\"abc\"", QString("abc"));
        row("device as number", "selected_device", "7", QString());
        row("enabled", "server_enabled", "true", true);
        row("enabled as string", "server_enabled", "\"true\"", false);
        row("port", "server_port", "8080", 8080);
        row("port as string", "server_port", "\"8080\"", 9001);
        row("port with fraction", "server_port", "80.5", 9001);
        row("port zero", "server_port", "0", 9001);
        row("port past 65535", "server_port", "70000", 9001);
        row("allow network", "server_allow_network", "true", true);
        row("share off", "share_connection", "false", false);
        row("share as string", "share_connection", "\"no\"", true);
        row("updates off", "auto_check_updates", "false", false);
        row("updates as object", "auto_check_updates", "{}", true);
        row("last check", "last_update_check", "1700000000.25", 1700000000.25);
        row("last check as string", "last_update_check", "\"1700000000\"", 0.0);
        row("usb port", "last_usb_port", "\"COM3\"", QString("COM3"));
        row("usb port as bool", "last_usb_port", "false", QString());
        row("route lan", "routes", "{\"dev1\": \"lan\"}", QString("lan"));
        row("route other case", "routes", "{\"dev1\": \"LAN\"}", QString("cloud"));
        row("route as number", "routes", "{\"dev1\": 1}", QString("cloud"));
        row("routes as array", "routes", "[\"lan\"]", QString("cloud"));
        row("lan host", "lan", "{\"dev1\": {\"host\": \"10.0.0.5\"}}", QString("10.0.0.5"));
        row("lan host as number", "lan", "{\"dev1\": {\"host\": 10}}", QString());
        row("lan entry as string", "lan", "{\"dev1\": \"10.0.0.5\"}", QString());
    }
    void storedValues()
    {
        QFETCH(QString, key);
        QFETCH(QByteArray, json);
        QFETCH(QVariant, expected);
        const SettingsStore store = storeWith("{\"" + key.toUtf8() + "\": " + json + "}");
        QCOMPARE(readSetting(store, key), expected);
    }

    void everySetterSurvivesReload()
    {
        SettingsStore store = storeWith("{\"kept_from_newer_version\": 42}");
        store.setSelectedDevice("dev-9");
        store.setServerEnabled(true);
        store.setServerPort(9100);
        store.setServerAllowNetwork(true);
        store.setShareConnection(false);
        store.setAutoCheckUpdates(false);
        store.setLastUpdateCheck(1700000123.5);
        store.setLastUsbPort("/dev/ttyACM0");
        store.setRoute("dev1", "lan");
        store.setLanEntry("dev1", "192.168.1.20", "tok", "Gym");

        SettingsStore reloaded;
        reloaded.load(m_path);
        QCOMPARE(reloaded.selectedDevice(), QString("dev-9"));
        QCOMPARE(reloaded.serverEnabled(), true);
        QCOMPARE(reloaded.serverPort(), 9100);
        QCOMPARE(reloaded.serverAllowNetwork(), true);
        QCOMPARE(reloaded.shareConnection(), false);
        QCOMPARE(reloaded.autoCheckUpdates(), false);
        QCOMPARE(reloaded.lastUpdateCheck(), 1700000123.5);
        QCOMPARE(reloaded.lastUsbPort(), QString("/dev/ttyACM0"));
        QCOMPARE(reloaded.route("dev1"), QString("lan"));
        QCOMPARE(reloaded.lanEntry("dev1").name, QString("Gym"));
        // Keys this version does not know are saved back untouched.
        const QJsonObject doc = QJsonDocument::fromJson(readFile(m_path)).object();
        QCOMPARE(doc.value("kept_from_newer_version").toInt(), 42);
    }

    void savesOnEverySetterEvenWhenUnchanged()
    {
        SettingsStore store = storeWith("{}");
        store.setServerEnabled(true);
        QVERIFY(QFile::remove(m_path));
        store.setServerEnabled(true);
        QVERIFY(QFileInfo::exists(m_path));
    }

    void routeOfOneDeviceKeepsTheOthers()
    {
        SettingsStore store = storeWith("{\"routes\": {\"b\": \"lan\"}}");
        store.setRoute("a", "lan");
        store.setRoute("c", "lan");
        store.setRoute("a", "cloud");

        SettingsStore reloaded;
        reloaded.load(m_path);
        QCOMPARE(reloaded.route("a"), QString("cloud"));
        QCOMPARE(reloaded.route("b"), QString("lan"));
        QCOMPARE(reloaded.route("c"), QString("lan"));
        QCOMPARE(reloaded.route("never-set"), QString("cloud"));
    }

    void routeReplacesAnInnerValueOfAnotherType()
    {
        SettingsStore store = storeWith("{\"routes\": [1, 2]}");
        store.setRoute("a", "lan");
        QCOMPARE(store.route("a"), QString("lan"));
    }

    void lanEntries()
    {
        SettingsStore store = storeWith("{}");
        store.setLanEntry("b", "10.0.0.2", "t2", "Court 2");
        store.setLanEntry("a", "10.0.0.1", "t1", "");
        store.setLanEntry("b", "10.0.0.3", "", "Court 2b");

        QCOMPARE(store.lanDeviceIds(), QStringList({"a", "b"}));
        const LanEntry a = store.lanEntry("a");
        QCOMPARE(a.host, QString("10.0.0.1"));
        QCOMPARE(a.token, QString("t1"));
        QVERIFY(a.usable());
        const LanEntry b = store.lanEntry("b");
        QCOMPARE(b.host, QString("10.0.0.3"));
        QCOMPARE(b.name, QString("Court 2b"));
        QVERIFY(!b.usable()); // no token
        QVERIFY(!store.lanEntry("unknown").usable());
        QVERIFY(!(LanEntry{"", "t", "n"}.usable()));
    }

    void fileIsOwnerOnlyAndIndented()
    {
        writeFile(m_path, "{}");
        QVERIFY(QFile::setPermissions(m_path, QFile::ReadOwner | QFile::WriteOwner |
                                                  QFile::ReadGroup | QFile::ReadOther));
        SettingsStore store;
        store.load(m_path);
        store.setServerEnabled(true);

        const QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup |
                                          QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
        const QFile::Permissions perms = QFileInfo(m_path).permissions();
        QCOMPARE(perms & others, QFile::Permissions());
        QVERIFY(perms.testFlags(QFile::ReadOwner | QFile::WriteOwner));
        QVERIFY(readFile(m_path).contains("\n    \"server_enabled\": true"));
    }

    void createsMissingFolders()
    {
        const QString nested = m_dir->filePath("obs/plugin_config/vantorelle/settings.json");
        SettingsStore store;
        store.load(nested);
        store.setLastUsbPort("COM4");
        QCOMPARE(QJsonDocument::fromJson(readFile(nested)).object().value("last_usb_port"),
                 QJsonValue("COM4"));
    }

    void failedSaveKeepsTheOldFile()
    {
        SettingsStore store = storeWith("{}");
        store.setServerPort(9100);
        const QByteArray before = readFile(m_path);

        int writes = 0;
        store.setSaveWriter([&writes](QIODevice& file, const QByteArray& data) {
            ++writes;
            file.write(data.left(data.size() / 2));
            return false;
        });
        store.setServerPort(9200);
        QCOMPARE(writes, 1);
        QCOMPARE(readFile(m_path), before);
        QCOMPARE(QDir(m_dir->path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{"settings.json"});
        QCOMPARE(store.serverPort(), 9200);

        // The next setter saves the whole document again, the failed value with it.
        store.setSaveWriter({});
        store.setServerEnabled(true);
        SettingsStore reloaded;
        reloaded.load(m_path);
        QCOMPARE(reloaded.serverPort(), 9200);
    }

    void uncreatableFolderIsSilent()
    {
        const QString blocker = m_dir->filePath("blocker");
        writeFile(blocker, "a regular file");
        SettingsStore store;
        store.load(blocker + "/config/settings.json");
        store.setSelectedDevice("dev-1");
        QCOMPARE(store.selectedDevice(), QString("dev-1"));
        QVERIFY(!QFileInfo::exists(blocker + "/config"));
        QCOMPARE(readFile(blocker), QByteArray("a regular file"));
    }

    void emptyPathSavesNothing()
    {
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(m_dir->path()));
        SettingsStore store;
        store.load(QString());
        store.setServerEnabled(true);
        QDir::setCurrent(previous);
        QVERIFY(store.serverEnabled());
        QVERIFY(
            QDir(m_dir->path()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
    }
};

QTEST_GUILESS_MAIN(TestSettingsStore)
#include "tst_settings_store.moc"
