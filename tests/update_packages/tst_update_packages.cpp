// Hostile and broken update packages, and archive tools that fail: every one must be refused
// with the plug-in folder left byte for byte as it was, and nothing written outside the
// updater's own folder.
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "sim/update_server.h"
#include "update/plugin_updater.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

using namespace vantorelle;
using State = PluginUpdater::State;
using test::ZipEntry;

namespace {

const QString NotInShape = "The update package was not in the expected shape. Nothing was changed.";
const QString HasLink =
    "The update package contained an unexpected link, so it was rejected. Nothing was changed.";
const QString NoModule =
    "The update package did not contain the plugin for this computer. Nothing was changed.";
const QString NotUnpacked = "The update could not be unpacked. Nothing was changed.";
const QString CannotUnpack =
    "The update could not be unpacked on this computer. Nothing was changed.";

// Fills a folder with the files of a package; the archive tool then zips it.
using Layout = std::function<void(const QDir& folder)>;

void put(const QDir& folder, const QString& relative, const QByteArray& bytes = "x")
{
    QDir().mkpath(QFileInfo(folder.filePath(relative)).absolutePath());
    test::writeFile(folder.filePath(relative), bytes);
}

void plugin(const QDir& folder, const QString& top = "vantorelle-obs")
{
    test::writePluginTree(folder.filePath(top), "1.0.2");
}

} // namespace

class TestUpdatePackages : public QObject
{
    Q_OBJECT

private:
    sim::UpdateServer m_server;
    QTemporaryDir m_work; // where test packages are built
    QString m_outside;    // a folder no package may reach
    std::unique_ptr<test::UpdaterSandbox> m_box;
    std::unique_ptr<PluginUpdater> m_updater;
    int m_built = 0;

    QByteArray zipOf(const Layout& layout)
    {
        const QDir folder(m_work.filePath(QString::number(++m_built)));
        QDir().mkpath(folder.path());
        layout(folder);
        return test::zipFolder(folder.path());
    }

    // Offers `archive` as version 1.0.2, installs it and waits for the end.
    bool install(const QByteArray& archive)
    {
        m_server.publish("1.0.2", platformPackageKey(), archive);
        m_updater->check(true);
        if (!test::waitForState(*m_updater, {State::Available}))
            return false;
        m_updater->install();
        return test::waitForState(*m_updater, {State::Installed, State::Failed});
    }

    // Checks that a refused package changed nothing anywhere.
    void verifyRefused(const QString& text, const QByteArray& installed, const QByteArray& around)
    {
        QCOMPARE(m_updater->state(), State::Failed);
        QCOMPARE(m_updater->statusText(), text);
        QCOMPARE(test::treeDigest(m_box->root()), installed);
        QCOMPARE(test::treeDigest(m_outside), around);
        QVERIFY(!QFileInfo::exists(m_box->staging() + "/extracted"));
        QVERIFY(!QFileInfo::exists(m_box->staging() + "/escaped"));
        QVERIFY(!QFileInfo::exists(m_box->path("escaped")));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QVERIFY(m_work.isValid());
        m_outside = m_work.filePath("outside");
        put(QDir(m_outside), "keep.txt", "untouched");
    }

    void init()
    {
        m_box = std::make_unique<test::UpdaterSandbox>();
        m_updater = std::make_unique<PluginUpdater>();
        m_updater->setConfig(m_box->config(m_server.manifestUrl()));
    }

    void cleanup()
    {
        m_updater.reset();
        m_box.reset();
    }

    void hostilePackage_data()
    {
        QTest::addColumn<QByteArray>("archive");
        QTest::addColumn<QString>("text");
        const QString module = defaultModuleRelativePath();

        QTest::newRow("two top-level folders")
            << zipOf([](const QDir& d) { plugin(d), plugin(d, "second"); }) << NotInShape;
        QTest::newRow("single file")
            << zipOf([&](const QDir& d) { put(d, "vantorelle-obs.so", "module"); }) << NotInShape;
        QTest::newRow("empty archive") << test::zipArchive({}) << NotInShape;
        QTest::newRow("top-level link to a folder")
            << test::zipArchive({{"vantorelle-obs", "/tmp", ZipEntry::Link}}) << NotInShape;
        QTest::newRow("link deep inside") << zipOf([](const QDir& d) {
            plugin(d);
            QFile::link("/etc/hostname", d.filePath("vantorelle-obs/data/locale/host"));
        }) << HasLink;
        QTest::newRow("relative link inside the tree") << zipOf([](const QDir& d) {
            plugin(d);
            QFile::link("locale", d.filePath("vantorelle-obs/data/alias"));
        }) << HasLink;
        QTest::newRow("link in the ignored folder") << zipOf([](const QDir& d) {
            plugin(d);
            put(d, "__MACOSX/x");
            QFile::link("/etc", d.filePath("__MACOSX/etc"));
        }) << HasLink;
        QTest::newRow("path escaping the unpack folder")
            << test::zipArchive({{"vantorelle-obs/" + module, "module"}, {"../escaped", "boom"}})
            << NotUnpacked;
        QTest::newRow("write through a link")
            << test::zipArchive({{"vantorelle-obs", {}, ZipEntry::Folder},
                                 {"vantorelle-obs/" + module, "module"},
                                 {"vantorelle-obs/out", m_outside.toUtf8(), ZipEntry::Link},
                                 {"vantorelle-obs/out/keep.txt", "overwritten"}})
            << NotUnpacked;
        QTest::newRow("no module for this platform") << zipOf([](const QDir& d) {
            put(d, "vantorelle-obs/bin/64bit/vantorelle-obs.other", "module");
        }) << NoModule;
        QTest::newRow("module is a folder")
            << zipOf([&](const QDir& d) { put(d, "vantorelle-obs/" + module + "/inner"); })
            << NoModule;
        const QByteArray good = zipOf([](const QDir& d) { plugin(d); });
        // Cut inside the entries: a cut in the trailing directory alone loses no file data.
        QTest::newRow("truncated archive")
            << good.left(good.indexOf("PK\x01\x02") / 2) << NotUnpacked;
        QTest::newRow("not an archive") << QByteArray("just some text\n") << NotUnpacked;
    }

    void hostilePackage()
    {
        QFETCH(QByteArray, archive);
        QFETCH(QString, text);
        QVERIFY(!archive.isEmpty());
        const QByteArray installed = test::treeDigest(m_box->root());
        const QByteArray around = test::treeDigest(m_outside);
        QVERIFY(install(archive));
        verifyRefused(text, installed, around);
    }

    void ignoredFolderBesideThePackage()
    {
        const QByteArray archive = zipOf([](const QDir& d) {
            plugin(d);
            put(d, "__MACOSX/vantorelle-obs/._data", "resource fork");
        });
        QVERIFY(install(archive));
        QCOMPARE(m_updater->state(), State::Installed);
        QCOMPARE(test::readFile(QDir(m_box->root()).filePath(defaultModuleRelativePath())),
                 "module 1.0.2");
    }

    void archiveToolFails_data()
    {
        QTest::addColumn<QByteArray>("script"); // empty: no program at all
        QTest::addColumn<bool>("executable");
        QTest::addColumn<QString>("text");
        QTest::newRow("missing") << QByteArray() << true << CannotUnpack;
        QTest::newRow("not executable") << QByteArray("exit 0") << false << CannotUnpack;
        QTest::newRow("exits non-zero") << QByteArray("exit 3") << true << NotUnpacked;
        QTest::newRow("killed") << QByteArray("kill -9 $$") << true << NotUnpacked;
        QTest::newRow("unpacks, then fails")
            << QByteArray("bsdtar \"$@\"\nexit 1") << true << NotUnpacked;
        QTest::newRow("hangs past its time-out")
            << QByteArray("exec sleep 30") << true << NotUnpacked;
    }

    void archiveToolFails()
    {
        QFETCH(QByteArray, script);
        QFETCH(bool, executable);
        QFETCH(QString, text);
        const QString tool = m_box->path("tools/tar");
        if (!script.isEmpty() && executable)
            test::writeScript(tool, script);
        else if (!script.isEmpty())
            put(QDir(m_box->path("tools")), "tar", script);
        UpdaterConfig config = m_updater->config();
        config.archiveTool = tool;
        config.archiveTimeoutMs = 300;
        m_updater->setConfig(config);
        const QByteArray installed = test::treeDigest(m_box->root());
        const QByteArray around = test::treeDigest(m_outside);
        QVERIFY(install(m_box->package("1.0.2")));
        verifyRefused(text, installed, around);
    }
};

QTEST_GUILESS_MAIN(TestUpdatePackages)
#include "tst_update_packages.moc"
