// The updater against a real update service on 127.0.0.1: the check and its texts, then the
// download, verification, unpacking (by the system's archive tool) and swap of a plug-in folder.
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "plugin_updater.h"
#include "sim/update_server.h"
#include "update_manifest.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;
using State = PluginUpdater::State;
using enum PluginUpdater::State;

namespace {

const QString Module = "bin/64bit/vantorelle-obs.so";
const QString Platform = "linux-x86_64";
const QString InstalledText = "Version 1.0.2 is installed. Restart OBS to start using it.";
const QString NotReadable = "The update information was not readable.";
const QString NotReachable =
    "Could not reach the Vantorelle update service. Check your internet connection.";
const QString BadAddress = "The update address is not valid.";
const QString Unfinished =
    "The download did not finish. Check your internet connection and try again.";
const QString NotInShape = "The update package was not in the expected shape. Nothing was changed.";
const QString HasLink =
    "The update package contained an unexpected link, so it was rejected. Nothing was changed.";
const QString NoModule =
    "The update package did not contain the plugin for this computer. Nothing was changed.";
const QString NotUnpacked = "The update could not be unpacked. Nothing was changed.";
const QString CannotUnpack =
    "The update could not be unpacked on this computer. Nothing was changed.";

// Sets `patch`'s keys in `object`; null removes a key.
void merge(QJsonObject& object, const QJsonObject& patch)
{
    for (auto it = patch.begin(); it != patch.end(); ++it)
        object.insert(it.key(), it->isNull() ? QJsonValue(QJsonValue::Undefined) : *it);
}

// A manifest offering 1.0.2 with `patch` merged in (JSON with ' for ", its "package" merged into
// the package); a patch that is not a JSON object is served as it is.
QByteArray manifest(QByteArray patch)
{
    QJsonObject edits = QJsonDocument::fromJson(patch.replace('\'', '"')).object();
    if (!patch.startsWith('{'))
        return patch;
    QJsonObject package{{"url", "https://downloads.example.com/p.zip"},
                        {"sha256", QString(64, 'a')},
                        {"size", 100}};
    merge(package, edits.take("package").toObject());
    QJsonObject root{{"schema", 1},
                     {"version", "1.0.2"},
                     {"released", "2025-03-01"},
                     {"notes", QJsonArray{"one", "two"}},
                     {"packages", QJsonObject{{Platform, package}}}};
    merge(root, edits);
    return QJsonDocument(root).toJson();
}

// Every entry below `folder` with its type, mode, link target and SHA-256, as the archive tool
// lists them: equal listings mean the same tree byte for byte. Empty for a missing folder.
QByteArray treeListing(const QString& folder)
{
    QProcess tool;
    tool.start("bsdtar", {"-cf", "-", "--format", "mtree", "--options",
                          "!all,type,mode,link,sha256", "-C", folder, "."});
    tool.waitForFinished();
    QByteArrayList lines = tool.readAllStandardOutput().split('\n');
    std::sort(lines.begin(), lines.end());
    return lines.join('\n');
}

} // namespace

class TestUpdater : public QObject
{
    Q_OBJECT

private:
    sim::UpdateServer m_server;
    QTemporaryDir m_work; // hand-made packages, and a folder no package may reach
    std::unique_ptr<test::UpdaterSandbox> m_box;
    std::unique_ptr<PluginUpdater> m_updater;
    int m_built = 0;

    QString outside() const { return m_work.filePath("outside"); }
    QString rootFile(const QString& relative) const { return m_box->root() + '/' + relative; }
    QStringList stagingEntries() const
    {
        return QDir(m_box->staging()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }
    void configure(const std::function<void(UpdaterConfig&)>& edit)
    {
        UpdaterConfig config = m_updater->config();
        edit(config);
        m_updater->setConfig(config);
    }
    bool waitFor(const QList<State>& states)
    {
        return QTest::qWaitFor([&] { return states.contains(m_updater->state()); }, 10000);
    }
    // Offers `archive` (null: the 1.0.2 package) as version 1.0.2, with `patch` merged into its
    // manifest entry and delivered as `delivery` says, and waits until the updater found it.
    bool offer(QByteArray archive = {}, const QJsonObject& patch = {},
               sim::HttpResponse delivery = {})
    {
        if (archive.isNull())
            archive = m_box->package("1.0.2");
        QJsonObject manifest = m_server.publish("1.0.2", Platform, archive);
        QJsonObject package = manifest.value("packages")[Platform].toObject();
        merge(package, patch);
        manifest["packages"] = QJsonObject{{Platform, package}};
        m_server.setManifest(manifest);
        delivery.body = archive;
        m_server.setPackageResponse("package.zip", delivery);
        m_updater->check(true);
        return waitFor({Available});
    }
    bool install()
    {
        m_updater->install();
        return waitFor({Installed, Failed});
    }
    // A zip the archive tool makes from mtree lines (contents from the file "x").
    QByteArray zipOf(const QByteArray& entries)
    {
        const QString path = m_work.filePath(QString::number(++m_built));
        test::writeFile(path + ".mtree", "#mtree\n" + entries);
        QProcess::execute("bsdtar", {"-cf", path + ".zip", "--format", "zip", "-C", m_work.path(),
                                     "@" + path + ".mtree"});
        return test::readFile(path + ".zip");
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        test::writeFile(m_work.filePath("x"), "x");
        QVERIFY(QDir().mkpath(outside()));
        test::writeFile(outside() + "/keep.txt", "untouched");
    }
    void init()
    {
        m_box = std::make_unique<test::UpdaterSandbox>();
        m_updater = std::make_unique<PluginUpdater>();
        m_updater->setConfig(m_box->config(m_server.manifestUrl()));
    }
    void compareVersions_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("order");
        const auto row = [](const char* a, const char* b, int order) {
            QTest::addRow("%s vs %s", a, b) << QString(a) << QString(b) << order;
        };
        row("1.0.0-rc1", "1.0.0-rc2", 0);
        row("1.10.0", "1.9.9", 1);
        row("1.2", "1.2.0", 0);
        row(" V1.2.3 ", "1.2.3", 0);
        row("1.0.0+build.7", "1.0.0", 0);
        row("1.0.0+b-1", "1.0.0", 0);
        row("1.x.1", "1.0.1", 0);
        row("99999999999999999999.1", "0.1", 0);
    }
    void compareVersions()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, order);
        QCOMPARE(vantorelle::compareVersions(a, b), order);
        QCOMPARE(vantorelle::compareVersions(b, a), -order);
    }
    void check_data()
    {
        QTest::addColumn<QString>("address"); // null: the service's manifest; "stall": no answer
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("obs");
        QTest::addColumn<State>("state");
        QTest::addColumn<QString>("text");
        const auto row = [](const QByteArray& patch, State state, const QString& text,
                            const char* obs = "") {
            QTest::addRow("%s%s", patch.left(40).data(), *obs ? " on OBS 30.2.3" : "")
                << QString() << manifest(patch) << QString(obs) << state << text;
        };
        const auto at = [](const char* name, const QString& address, const QString& text) {
            QTest::newRow(name) << address << QByteArray() << QString() << Failed << text;
        };
        const QString incomplete = "The update information is incomplete.";
        const QString noVersion = "The update information has no valid version.";
        const QString upToDate = "Vantorelle 1.0.1 is up to date.";
        const QString available = "Version 1.0.2 is available.";
        const QString newerPlugin =
            "This update needs a newer Vantorelle plugin than the one "
            "installed. Download the installer from the Vantorelle website.";
        row("{'version': '1.2.3-beta.1'}", Available, "Version 1.2.3-beta.1 is available.",
            "30.2.3");
        row("{'version': '1.2'}", Failed, noVersion);
        row("{'version': 'v1.2.3'}", Failed, noVersion);
        row("{'version': 2}", Failed, noVersion);
        row("{'version': '1.0.1-rc1'}", UpToDate, upToDate);
        row("{'version': '1.0.2-rc1'}", Available, "Version 1.0.2-rc1 is available.");
        row("{'version': '1.0.1', 'packages': null}", UpToDate, upToDate);
        row("{'version': '0.9.0', 'package': {'sha256': 'x'}}", UpToDate, upToDate);
        row("{'package': {'sha256': '" + QByteArray(64, 'A') + "'}}", Available, available);
        row("{'package': {'sha256': '" + QByteArray(63, 'a') + "'}}", Failed, incomplete);
        row("{'package': {'url': 'http://example.com/p.zip'}}", Failed, incomplete);
        row("{'package': {'url': 'http://localhost:1/p.zip'}}", Available, available);
        row("{'schema': 2}", Failed, newerPlugin);
        row("{'schema': '1', 'version': 'junk'}", Failed, newerPlugin);
        row("{'schema': null}", Available, available);
        row("{'min_obs': '31.0.0'}", Failed,
            "Version 1.0.2 needs OBS 31.0.0 or newer (this is OBS 30.2.3).", "30.2.3");
        row("{'min_obs': '31.0.0'}", Available, available);
        row("{'min_obs': '30.2.3'}", Available, available, "30.2.3");
        row("{'packages': {'macos-arm64': {'url': 'x'}}}", Failed,
            "Version 1.0.2 is out, but not available for this computer yet.");
        row("[1,2]", Failed, NotReadable);
        row("<html>", Failed, NotReadable);
        at("not found", m_server.http().url("/none.json").toString(), NotReachable);
        at("no one listening", QString("http://127.0.0.1:%1/").arg(test::freePort()), NotReachable);
        at("no answer in time", "stall", NotReachable);
        at("http on a public host", "http://example.com/manifest.json", BadAddress);
        at("ftp", "ftp://127.0.0.1/manifest.json", BadAddress);
        at("no host", "https:manifest.json", BadAddress);
        at("no address", "", BadAddress);
    }
    // An automatic check keeps a failure to itself, and a second one waits for the first; then
    // the user asks.
    void check()
    {
        QFETCH(QString, address);
        QFETCH(QByteArray, body);
        QFETCH(QString, obs);
        QFETCH(State, state);
        QFETCH(QString, text);
        sim::HttpResponse response = sim::HttpResponse::text(body, 200, "application/json");
        response.stall = address == "stall";
        m_server.setManifestResponse(response);
        configure([&](UpdaterConfig& c) {
            c.obsVersion = obs;
            c.requestTimeoutMs = response.stall ? 200 : 3000;
            if (!address.isNull() && !response.stall)
                c.manifestUrl = address;
        });
        const int requests = m_server.manifestRequests();
        m_updater->check(false);
        m_updater->check(false);
        QTRY_VERIFY(!m_updater->isBusy());
        QCOMPARE(m_updater->state(), state == Failed ? Idle : state);
        QCOMPARE(m_updater->statusText(), state == Failed ? QString() : text);
        QVERIFY(m_server.manifestRequests() <= requests + 1);

        m_updater->check(true);
        QCOMPARE(m_updater->statusText(), text == BadAddress ? text : "Checking for updates");
        QVERIFY(waitFor({state}));
        QCOMPARE(m_updater->statusText(), text);
        if (state == Failed) { // nothing to install
            m_updater->install();
            QCOMPARE(m_updater->state(), Failed);
        }
        if (address.isNull()) {
            const sim::HttpRequest request = m_server.http().requests().constLast();
            QCOMPARE(request.header("User-Agent"),
                     "Vantorelle-OBS/" VANTORELLE_VERSION +
                         QByteArray(obs.isEmpty() ? "" : " (30.2.3)"));
            QCOMPARE(request.header("Accept"), "application/json");
        }
        if (state == Available) { // what the banner shows
            QCOMPARE(m_updater->manifest().notes, "one\ntwo");
            QCOMPARE(m_updater->manifest().released, "2025-03-01");
        }
    }
    void installSwapsTheWholeTree()
    {
        const QByteArray installed = treeListing(m_box->root());
        // Without a size in the manifest the size checks are skipped.
        QVERIFY(offer({}, {{"size", QJsonValue()}}));
        QCOMPARE(m_updater->manifest().package.size, 0);
        QVERIFY(m_updater->canSelfUpdate());
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(), InstalledText);
        QVERIFY(!m_updater->isBusy());
        QCOMPARE(treeListing(m_box->root()),
                 treeListing(m_box->path("build-1.0.2/vantorelle-obs")));
        QCOMPARE(treeListing(m_box->staging() + "/previous"), installed);
        QCOMPARE(stagingEntries(), QStringList{"previous"});

        // Installed is final: no further check or install reaches the service.
        const qsizetype requests = m_server.http().requests().size();
        m_updater->check(true);
        m_updater->install();
        QCOMPARE(m_updater->state(), Installed);
        QCOMPARE(m_server.http().requests().size(), requests);
    }
    // Progress in percents; meanwhile further checks and installs are refused.
    void slowDownload()
    {
        // The transfer reports progress at most every 100 ms, so the pieces come slower.
        const QByteArray package = m_box->package("1.0.2");
        sim::HttpResponse delivery;
        delivery.chunkBytes = qMax<int>(1, int(package.size()) / 6);
        delivery.chunkIntervalMs = 150;
        QVERIFY(offer(package, {}, delivery));
        const qsizetype requests = m_server.http().requests().size();
        QStringList texts;
        connect(m_updater.get(), &PluginUpdater::stateChanged, this,
                [&] { texts.append(m_updater->statusText()); });
        m_updater->install();
        m_updater->check(true);
        m_updater->install();
        QVERIFY(waitFor({Installed, Failed}));
        QCOMPARE(m_server.http().requests().size(), requests + 1); // the package only

        QCOMPARE(texts.first(), "Downloading version 1.0.2");
        QCOMPARE(texts.mid(texts.size() - 3),
                 QStringList({"Downloading version 1.0.2 100%", "Installing version 1.0.2",
                              InstalledText}));
        QVERIFY2(texts.size() >= 7, qPrintable(texts.join(" | "))); // three steps below 100%
    }
    // A file in use stops the swap of the whole folder; files are then moved aside one by one.
    void busyFiles()
    {
        test::writeFile(rootFile(Module + ".old"), "module 1.0.0");
        QString busy = Module + ".old"; // a leftover in use cannot make way
        configure([&busy](UpdaterConfig& c) {
            c.isBusy = [&busy](const QString& p) { return p.endsWith(busy) || p.endsWith(Module); };
        });
        QVERIFY(offer());
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(), "The update could not be installed "
                                          "(bin/64bit/vantorelle-obs.so is in use). The current "
                                          "version was left in place.");
        QCOMPARE(test::readFile(rootFile(Module)), "module 1.0.1");

        // Once the leftover is free the same update installs, without a new check.
        busy = Module;
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(), InstalledText);
        QCOMPARE(test::readFile(rootFile(Module)), "module 1.0.2");
        QCOMPARE(test::readFile(rootFile(Module + ".old")), "module 1.0.1");

        // The next start clears what the swap moved aside, in every folder.
        QCOMPARE(PluginUpdater::removeOldFiles(m_box->root()), 3);
        QCOMPARE(treeListing(m_box->root()),
                 treeListing(m_box->path("build-1.0.2/vantorelle-obs")));
    }
    void refusedBeforeDownload_data()
    {
        // A read-only "root" or its "parent", a missing "module" (and no download page), or a
        // file where the "staging" folder should go.
        QTest::addColumn<QString>("broken");
        QTest::addColumn<QString>("text");
        const QString allUsers = "This copy of the plugin was installed for all users, so it "
                                 "cannot update itself. Download and run the installer from %1.";
        QTest::newRow("root") << "root" << allUsers.arg("https://example.com/obs");
        QTest::newRow("parent") << "parent" << allUsers.arg("https://example.com/obs");
        QTest::newRow("module") << "module" << allUsers.arg("the Vantorelle website");
        QTest::newRow("staging") << "staging"
                                 << "Could not prepare a download folder (<sandbox>/blocker/up).";
    }
    void refusedBeforeDownload()
    {
        QFETCH(QString, broken);
        QFETCH(QString, text);
        const QString sandbox = QFileInfo(m_box->root()).path();
        const QString readOnly = broken == "root"     ? m_box->root()
                                 : broken == "parent" ? sandbox
                                                      : "";
        if (broken == "module")
            QVERIFY(QFile::remove(rootFile(Module)));
        test::writeFile(sandbox + "/blocker", "a file where a folder should go");
        configure([&](UpdaterConfig& c) {
            c.isWritable = [readOnly](const QString& p) { return QDir::cleanPath(p) != readOnly; };
            if (broken == "module")
                c.downloadPage.clear();
            if (broken == "staging")
                c.stagingFolder = sandbox + "/blocker/up";
        });
        QVERIFY(offer());
        const int downloads = m_server.packageRequests("package.zip");
        QCOMPARE(m_updater->canSelfUpdate(), broken == "staging");
        m_updater->install();
        QCOMPARE(m_updater->statusText(), text.replace("<sandbox>", sandbox));
        QCOMPARE(m_server.packageRequests("package.zip"), downloads);
    }
    void refused_data()
    {
        QTest::addColumn<QByteArray>("archive"); // null: the 1.0.2 package
        // A delivery fault, or the archive tool replaced ("tool": by nothing, "tool:": by that
        // script).
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("text");
        const auto broken = [](const char* name, const char* fault, const QString& text) {
            QTest::newRow(name) << QByteArray() << QString(fault) << text;
        };
        const auto hostile = [this](const char* name, const QByteArray& tree, const QString& text) {
            QTest::newRow(name) << zipOf(tree) << QString() << text;
        };
        // mtree lines for the archive tool; every file holds "x".
        const auto file = [](const QByteArray& path) { return path + " type=file contents=x\n"; };
        const auto linkTo = [](const QByteArray& path, const QByteArray& target) {
            return path + " type=link link=" + target + '\n';
        };
        const QByteArray module = file("vantorelle-obs/bin/64bit/vantorelle-obs.so");
        broken("one byte over the size", "size-1",
               "The download was larger than expected, so it was discarded.");
        broken("one byte under the size", "size+1",
               "The download was incomplete, so it was discarded. Try again.");
        broken(
            "wrong hash", "hash",
            "The download did not match its checksum, so it was discarded. Nothing was changed.");
        broken("dropped mid-body", "drop", Unfinished);
        broken("not found", "404", Unfinished);
        broken("stalled past the time-out", "stall", Unfinished);
        broken("tool missing", "tool", CannotUnpack);
        broken("tool exits non-zero", "tool:exit 3", NotUnpacked);
        broken("tool unpacks, then fails", "tool:bsdtar \"$@\"\nexit 1", NotUnpacked);
        broken("tool hangs past its time-out", "tool:exec sleep 30", NotUnpacked);

        hostile("two top-level folders", module + file("second/" + Module.toUtf8()), NotInShape);
        hostile("single file", file("vantorelle-obs.so"), NotInShape);
        hostile("empty archive", "", NotInShape);
        hostile("top-level link to a folder", linkTo("vantorelle-obs", "/tmp"), NotInShape);
        hostile("link deep inside",
                module + linkTo("vantorelle-obs/data/locale/host", "/etc/hostname"), HasLink);
        hostile("relative link inside the tree",
                module + file("vantorelle-obs/data/locale/en-US.ini") +
                    linkTo("vantorelle-obs/data/alias", "locale"),
                HasLink);
        hostile("link in the ignored folder", module + linkTo("__MACOSX/etc", "/etc"), HasLink);
        hostile("path escaping the unpack folder", module + file("../escaped"), NotUnpacked);
        hostile("write through a link",
                "vantorelle-obs type=dir\n" + module +
                    linkTo("vantorelle-obs/out", outside().toUtf8()) +
                    file("vantorelle-obs/out/keep.txt"),
                NotUnpacked);
        hostile("no module for this platform",
                file("vantorelle-obs/bin/64bit/vantorelle-obs.other"), NoModule);
        hostile("module is a folder", file("vantorelle-obs/" + Module.toUtf8() + "/inner"),
                NoModule);
        // Cut inside the entries: a cut in the trailing directory alone loses no file data.
        const QByteArray good = zipOf(module + file("vantorelle-obs/data/.hidden"));
        QTest::newRow("truncated archive")
            << good.left(good.indexOf("PK\x01\x02") / 2) << QString() << NotUnpacked;
        QTest::newRow("not an archive")
            << QByteArray("just some text\n") << QString() << NotUnpacked;
    }
    // A refused update leaves the plug-in and everything around it as it was, and no work files.
    void refused()
    {
        QFETCH(QByteArray, archive);
        QFETCH(QString, fault);
        QFETCH(QString, text);
        const QString tool = m_box->path("tar");
        if (fault.startsWith("tool:"))
            test::writeFile(tool, "#!/bin/sh\n" + fault.mid(5).toUtf8() + '\n');
        QFile::setPermissions(tool, QFile::ReadOwner | QFile::ExeOwner);
        configure([&](UpdaterConfig& c) {
            c.requestTimeoutMs = 300;
            c.archiveTimeoutMs = 300;
            c.archiveTool = fault.startsWith("tool") ? tool : c.archiveTool;
        });
        if (archive.isNull())
            archive = m_box->package("1.0.2");
        QJsonObject patch;
        if (fault.startsWith("size"))
            patch["size"] = archive.size() + (fault == "size+1" ? 1 : -1);
        if (fault == "hash")
            patch["sha256"] = QString(64, 'b');
        sim::HttpResponse delivery;
        delivery.status = fault == "404" ? 404 : 200;
        delivery.dropAfterBytes = fault == "drop" ? 100 : -1;
        delivery.stall = fault == "stall";
        const QByteArray installed = treeListing(m_box->root());
        const QByteArray around = treeListing(outside());
        QVERIFY(offer(archive, patch, delivery));
        QElapsedTimer clock;
        clock.start();
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(), text);
        QVERIFY(!m_updater->isBusy());
        QCOMPARE(treeListing(m_box->root()), installed);
        QCOMPARE(treeListing(outside()), around);
        QCOMPARE(stagingEntries(), QStringList());
        QVERIFY(fault != "stall" || clock.elapsed() >= 500); // twice the request time-out
    }
};

QTEST_GUILESS_MAIN(TestUpdater)
#include "tst_updater.moc"
