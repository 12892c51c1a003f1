#include "common/test_support.h"
#include "settings_store.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

// Every setting as its getter reads it, by key; a device's route and entry for "dev1".
QVariantMap settings(const SettingsStore& store)
{
    const LanEntry lan = store.lanEntry("dev1");
    return {{"selected_device", store.selectedDevice()},
            {"server_enabled", store.serverEnabled()},
            {"server_port", store.serverPort()},
            {"server_allow_network", store.serverAllowNetwork()},
            {"share_connection", store.shareConnection()},
            {"auto_check_updates", store.autoCheckUpdates()},
            {"last_update_check", store.lastUpdateCheck()},
            {"last_usb_port", store.lastUsbPort()},
            {"routes", store.route("dev1") == Route::Lan ? "lan" : "cloud"},
            {"lan",
             QStringList{lan.host, lan.token, lan.name, lan.usable() ? "usable" : ""}.join('|')}};
}

QJsonObject document(const QString& path)
{
    return QJsonDocument::fromJson(readFile(path)).object();
}

} // namespace

class TestSettingsStore : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    const QString m_path = m_dir.filePath("config/settings.json");

    SettingsStore storeWith(const QByteArray& fileBytes)
    {
        QDir().mkpath(QFileInfo(m_path).path());
        writeFile(m_path, fileBytes);
        SettingsStore store;
        store.load(m_path);
        return store;
    }
private Q_SLOTS:
    void init() { QDir(m_dir.filePath("config")).removeRecursively(); }
    // Each key with a value of its type, then with one of another type or out of range.
    void storedValues_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QByteArray>("wrongJson");
        QTest::addColumn<QVariant>("fallback");
        auto row = [](const char* key, const char* json, QVariant value, const char* wrongJson,
                      QVariant fallback) {
            QTest::addRow("%s %s", key, wrongJson)
                << QString(key) << QByteArray(json) << value << QByteArray(wrongJson) << fallback;
        };
        row("selected_device", "\"abc\"", "abc", "7", "");
        row("server_enabled", "true", true, "\"true\"", false);
        row("server_port", "1", 1, "0", 9001);
        row("server_port", "65535", 65535, "65536", 9001);
        row("server_port", "8080", 8080, "80.5", 9001);
        row("server_allow_network", "true", true, "1", false);
        row("share_connection", "false", false, "\"no\"", true);
        row("auto_check_updates", "false", false, "{}", true);
        row("last_update_check", "1700000000.25", 1700000000.25, "\"1700000000\"", 0.0);
        row("last_usb_port", "\"COM3\"", "COM3", "false", "");
        row("routes", R"({"dev1": "lan"})", "lan", R"({"dev1": "LAN"})", "cloud");
        row("lan", R"({"dev1": {"host": "10.0.0.5", "token": "t", "name": "Gym"}})",
            "10.0.0.5|t|Gym|usable", R"({"dev1": {"host": 10, "token": "t"}})", "|t||");
        row("lan", R"({"dev1": {"host": "10.0.0.5", "token": "t", "name": "Gym"}})",
            "10.0.0.5|t|Gym|usable", R"({"dev1": {"host": "10.0.0.5", "name": 3}})", "10.0.0.5|||");
    }
    void storedValues()
    {
        QFETCH(QString, key);
        QFETCH(QByteArray, json);
        QFETCH(QVariant, value);
        QFETCH(QByteArray, wrongJson);
        QFETCH(QVariant, fallback);
        auto read = [&](const QByteArray& text) {
            return settings(storeWith("{\"" + key.toUtf8() + "\": " + text + "}")).value(key);
        };
        QCOMPARE(read(json), value);
        QCOMPARE(read(wrongJson), fallback);
    }
    void settersSaveTheWholeDocument()
    {
        SettingsStore store =
            storeWith(R"({"kept_from_newer_version": 42, "routes": {"b": "lan"}})");
        store.setSelectedDevice("dev-9");
        store.setServerEnabled(true);
        store.setServerPort(9100);
        store.setServerAllowNetwork(true);
        store.setShareConnection(false);
        store.setAutoCheckUpdates(false);
        store.setLastUpdateCheck(1700000123.5);
        store.setLastUsbPort("/dev/ttyACM0");
        store.setRoute("a", Route::Lan);
        store.setRoute("a", Route::Cloud);
        store.setRoute("c", Route::Lan);
        store.setLanEntry("d2", "10.0.0.2", "t2", "Court");
        store.setLanEntry("d1", "10.0.0.1", "t1", "");
        QCOMPARE(store.lanDeviceIds(), QStringList({"d1", "d2"}));
        QCOMPARE(document(m_path), QJsonDocument::fromJson(R"({"kept_from_newer_version": 42,
            "selected_device": "dev-9", "server_enabled": true, "server_port": 9100,
            "server_allow_network": true, "share_connection": false, "auto_check_updates": false,
            "last_update_check": 1700000123.5, "last_usb_port": "/dev/ttyACM0",
            "routes": {"a": "cloud", "b": "lan", "c": "lan"},
            "lan": {"d1": {"host": "10.0.0.1", "token": "t1", "name": ""},
                    "d2": {"host": "10.0.0.2", "token": "t2", "name": "Court"}}})")
                                       .object());
        QVERIFY(readFile(m_path).contains("\n    \"server_enabled\": true"));
    }
    void savesAreOwnerOnlyAndAtomic()
    {
        SettingsStore store;
        store.load(m_path); // neither the file nor its folder exist yet
        store.setServerPort(9100);
        QVERIFY(
            QFile::setPermissions(m_path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther));
        store.setServerPort(9200);
#ifndef Q_OS_WIN // Windows: an access list, read back in windowsAccessList
        QCOMPARE(QFileInfo(m_path).permissions(),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
#endif
        const QByteArray before = readFile(m_path);
        int writes = 0;
        store.setSaveWriter([&writes](QIODevice& file, const QByteArray& data) {
            return ++writes && file.write(data.left(9)) < 0; // fails half-way
        });
        store.setServerPort(9300);
        QCOMPARE(writes, 1);
        QCOMPARE(readFile(m_path), before);
        QCOMPARE(QFileInfo(m_path).dir().entryList(QDir::Files | QDir::Hidden),
                 QStringList{"settings.json"});
        QCOMPARE(store.serverPort(), 9300);
        // The next save writes the whole document, the failed value with it, even when the
        // setter changes nothing; once the file holds it, setting it again writes nothing.
        store.setSaveWriter([&writes](QIODevice& file, const QByteArray& data) {
            return ++writes && file.write(data) == data.size();
        });
        store.setServerPort(9300);
        QCOMPARE(writes, 2);
        QCOMPARE(document(m_path), QJsonObject({{"server_port", 9300}}));
        store.setServerPort(9300);
        QCOMPARE(writes, 2);
        store.setServerEnabled(true);
        QCOMPARE(writes, 3);
        QCOMPARE(document(m_path), QJsonObject({{"server_port", 9300}, {"server_enabled", true}}));
    }
#ifdef Q_OS_WIN
    // A save is readable by its user and the system only, whatever the folder grants.
    void windowsAccessList()
    {
        SettingsStore store;
        store.load(m_path);
        store.setServerPort(9100);
        const QString plain = QFileInfo(m_path).absolutePath() + "/plain.txt";
        writeFile(plain, "made without an access list of its own");
        const QString saved = accessList(m_path);
        QVERIFY2(saved != accessList(plain), qPrintable(saved));
        // Exactly two entries: full access for this user and for the system.
        QCOMPARE(accessEntries(m_path),
                 QStringList({"(A;;FA;;;" + currentUserSid(), "(A;;FA;;;SY"}));
        // Nothing inherited from the folder may be added later.
        if (!saved.startsWith("D:P"))
            QSKIP(qPrintable("wine keeps no \"protected\" flag on an access list: " + saved));
        QCOMPARE(saved.left(3), "D:P");
    }
#endif
};

QTEST_GUILESS_MAIN(TestSettingsStore)
#include "tst_settings_store.moc"
