// The updater against a real update service on 127.0.0.1: the check and its texts, then the
// download, verification, unpacking (by the system's archive tool) and swap of a plug-in folder.
#include "common/plugin_updater_support.h"
#include "common/test_support.h"
#include "manifest_signature.h"
#include "plugin_updater.h"
#include "signature_backend.h"
#include "sim/feed_certificate.h"
#include "sim/update_server.h"
#include "update_manifest.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QSslConfiguration>
#include <QSslKey>
#include <QTest>

#include <unistd.h>

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
const QString TooLarge = "The download was larger than expected, so it was discarded.";
const QString TookTooLong = "The download took too long, so it was stopped. Nothing was changed.";
const QString TooLargeToUnpack = "The update package was too large to unpack. Nothing was changed.";
const QString UnsafePath =
    "The update package contained an unsafe path, so it was rejected. Nothing was changed.";
const QString Unverified = "The update information could not be verified.";

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
    // An archive the archive tool makes with `arguments`, from the work folder.
    QByteArray archiveOf(const QStringList& arguments)
    {
        const QString path = m_work.filePath(QString::number(++m_built));
        QProcess::execute("bsdtar", QStringList{"-cf", path, "-C", m_work.path()} + arguments);
        return test::readFile(path);
    }
    // A zip (or another `format`) the archive tool makes from mtree lines (contents from the
    // file "x").
    QByteArray zipOf(const QByteArray& entries, const QString& format = "zip")
    {
        const QString mtree = m_work.filePath(QString::number(++m_built) + ".mtree");
        test::writeFile(mtree, "#mtree\n" + entries);
        return archiveOf({"--format", format, "@" + mtree});
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
        m_server.setSigningKey(m_box->signingKey());
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
        row("{'notes': '" + QByteArray(1024 * 1024, 'n') + "'}", Failed, NotReadable); // too big
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
            const auto requests = m_server.http().requests();
            const sim::HttpRequest request =
                *std::find_if(requests.crbegin(), requests.crend(),
                              [](const sim::HttpRequest& r) { return r.path == "/manifest.json"; });
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
        // Without a size in the manifest only the cap applies; every limit is met exactly: the
        // package holds 11 entries, with 46 bytes in its files.
        const QByteArray archive = m_box->package("1.0.2");
        configure([&](UpdaterConfig& c) {
            c.maxDownloadBytes = archive.size();
            c.maxArchiveEntries = 11;
            c.maxUnpackedBytes = 46;
        });
        QVERIFY(offer(archive, {{"size", QJsonValue()}}));
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
        QCOMPARE(PluginUpdater::tidyInstallFolder(m_box->root()), 3);
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
        // A delivery fault, a smaller limit, or the archive tool replaced ("tool": by nothing,
        // "tool:": by that script).
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
        broken("trickled past the time limit", "trickle", TookTooLong);
        broken("one byte over the cap, without a size", "cap-1", TooLarge);
        broken("one byte over the unpacked size cap", "unpacked 45", TooLargeToUnpack);
        broken("tool missing", "tool", CannotUnpack);
        broken("tool exits non-zero", "tool:exit 3", NotUnpacked);
        broken("tool unpacks, then fails", "tool:bsdtar \"$@\" && [ \"$1\" != -xf ]", NotUnpacked);
        broken("tool hangs past its time-out", "tool:exec sleep 30", NotUnpacked);

        hostile("two top-level folders", module + file("second/" + Module.toUtf8()), NotInShape);
        hostile("single file", file("vantorelle-obs.so"), NotInShape);
        hostile("empty archive", "", NotInShape);
        hostile("top-level link to a folder", linkTo("vantorelle-obs", "/tmp"), HasLink);
        hostile("link deep inside",
                module + linkTo("vantorelle-obs/data/locale/host", "/etc/hostname"), HasLink);
        hostile("relative link inside the tree",
                module + file("vantorelle-obs/data/locale/en-US.ini") +
                    linkTo("vantorelle-obs/data/alias", "locale"),
                HasLink);
        hostile("link in the ignored folder", module + linkTo("__MACOSX/etc", "/etc"), HasLink);
        hostile("path escaping the unpack folder", module + file("../escaped"), UnsafePath);
        hostile("drive letter", module + file("C:/vantorelle-obs/x"), UnsafePath);
        QTest::newRow("climbing between backslashes")
            << zipOf(module + file("vantorelle-obs\\134..\\134..\\134escaped"), "pax") << QString()
            << UnsafePath;
        QTest::newRow("absolute path")
            << archiveOf({"--format", "zip", "-P", "-s", ",^x$," + outside() + "/planted,", "x"})
            << QString() << UnsafePath;
        hostile("write through a link",
                "vantorelle-obs type=dir\n" + module +
                    linkTo("vantorelle-obs/out", outside().toUtf8()) +
                    file("vantorelle-obs/out/keep.txt"),
                HasLink);
        const QString linked = m_work.filePath("linked/vantorelle-obs/bin/64bit/");
        QDir().mkpath(linked);
        test::writeFile(linked + "vantorelle-obs.so", "module");
        link(QFile::encodeName(linked + "vantorelle-obs.so"), QFile::encodeName(linked + "copy"));
        QTest::newRow("hard link")
            << archiveOf({"--format", "pax", "-C", m_work.filePath("linked"), "vantorelle-obs"})
            << QString() << HasLink;
        QByteArray folders;
        for (int i = 0; i < 10000; ++i)
            folders += "vantorelle-obs/" + QByteArray::number(i) + " type=dir\n";
        hostile("10,001 entries", module + folders, TooLargeToUnpack);
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
        // Unless replaced, the tool notes each run's first argument.
        const QString tool = m_box->path("tar"), runs = m_box->path("runs");
        if (fault.startsWith("tool:"))
            test::writeFile(tool, "#!/bin/sh\n" + fault.mid(5).toUtf8() + '\n');
        else if (fault != "tool")
            test::writeFile(tool, "#!/bin/sh\necho \"$1\" >>'" + runs.toUtf8() +
                                      "'\nexec bsdtar \"$@\"\n");
        QFile::setPermissions(tool, QFile::ReadOwner | QFile::ExeOwner);
        if (archive.isNull())
            archive = m_box->package("1.0.2");
        configure([&](UpdaterConfig& c) {
            c.requestTimeoutMs = 300;
            c.archiveTimeoutMs = fault.endsWith("sleep 30") ? 300 : c.archiveTimeoutMs;
            c.archiveTool = tool;
            c.downloadTimeLimitMs = fault == "trickle" ? 300 : c.downloadTimeLimitMs;
            c.maxDownloadBytes = archive.size() - 1;
            c.maxUnpackedBytes = fault == "unpacked 45" ? 45 : c.maxUnpackedBytes;
        });
        QJsonObject patch;
        if (fault.startsWith("size"))
            patch["size"] = archive.size() + (fault == "size+1" ? 1 : -1);
        if (fault == "cap-1")
            patch["size"] = QJsonValue(); // no size
        if (fault == "hash")
            patch["sha256"] = QString(64, 'b');
        sim::HttpResponse delivery;
        delivery.status = fault == "404" ? 404 : 200;
        delivery.dropAfterBytes = fault == "drop" ? 100 : -1;
        delivery.stall = fault == "stall";
        delivery.chunkBytes = fault == "trickle" ? 1 : 0;
        delivery.chunkIntervalMs = 20;
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
        QVERIFY(fault != "trickle" || clock.elapsed() >= 300);
        // What the listing refuses is never unpacked.
        if (text == UnsafePath || text == HasLink || text == TooLargeToUnpack)
            QCOMPARE(test::readFile(runs), "-tf\n-tv\n");
    }
    // A swap cut off by SIGKILL after any of its steps: the next start leaves the plug-in folder
    // exactly as it was or exactly as the package has it, never a mix.
    void killedAtEveryStep_data()
    {
        QTest::addColumn<bool>("fileByFile");
        QTest::newRow("whole folder") << false;
        QTest::newRow("file by file") << true;
    }
    void killedAtEveryStep()
    {
        QFETCH(bool, fileByFile);
        const QByteArray archive = m_box->package("1.0.2");
        m_server.publish("1.0.2", Platform, archive);
        const QByteArray oldTree = treeListing(m_box->root());
        const QByteArray newTree = treeListing(m_box->path("build-1.0.2/vantorelle-obs"));
        QStringList outcomes;
        for (int step = 1; step < 100; ++step) {
            const test::UpdaterSandbox box;
            QProcess bridge;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert("VANTORELLE_KILL_AT_SWAP_STEP", QString::number(step));
            env.insert("VANTORELLE_UPDATE_KEY", m_box->publicKeyFile());
            bridge.setProcessEnvironment(env);
            QStringList arguments{"update",
                                  "--install-dir",
                                  box.root(),
                                  "--staging",
                                  box.staging(),
                                  "--manifest",
                                  m_server.manifestUrl().toString()};
            if (fileByFile)
                arguments.append("--file-by-file");
            bridge.start(VANTORELLE_BRIDGE, arguments);
            QVERIFY(QTest::qWaitFor([&] { return bridge.state() == QProcess::NotRunning; }, 30000));
            PluginUpdater::tidyInstallFolder(box.root());
            const QByteArray tree = treeListing(box.root());
            QVERIFY2(tree == oldTree || tree == newTree, qPrintable(QString::number(step)));
            QVERIFY(!QFileInfo::exists(box.root() + ".update-journal"));
            if (bridge.exitStatus() == QProcess::NormalExit) {
                QCOMPARE(bridge.readAllStandardOutput().trimmed().split('\n').last(),
                         InstalledText.toUtf8());
                QCOMPARE(tree, newTree);
                break;
            }
            outcomes.append(tree == oldTree ? "old" : "new");
        }
        qInfo("killed at %d points: %s", int(outcomes.size()), qPrintable(outcomes.join(' ')));
        // File by file: the journal, then per file its second name, the new file and the
        // journal's progress (not after the last), and the journal's removal.
        QVERIFY(outcomes.size() >= (fileByFile ? 10 : 2));
        QVERIFY(!fileByFile || (outcomes.contains("old") && outcomes.contains("new")));
    }
    // A swap that fails half-way puts back what it had replaced. Only when that fails as well
    // does the text say the current version is not whole, and then the next start restores it.
    void failureHalfWay()
    {
        const QByteArray installed = treeListing(m_box->root());
        const QString locale = rootFile("data/locale");
        bool sticky = false; // a refused write makes every later write fail as well
        bool stuck = false;
        configure([&](UpdaterConfig& c) {
            c.fileByFile = true;
            c.swapWritable = [&](const QString& folder) {
                if (folder == locale)
                    stuck = sticky;
                return folder != locale && !stuck;
            };
        });
        QVERIFY(offer());
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(),
                 "The update could not be installed (could not write data/locale/en-US.ini). The "
                 "current version was left in place.");
        QCOMPARE(treeListing(m_box->root()), installed);
        QVERIFY(!QFileInfo::exists(m_box->root() + ".update-journal"));

        sticky = true;
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(),
                 "The update could not be installed (could not write data/locale/en-US.ini), and "
                 "the current version could not be fully restored. Restart OBS to finish "
                 "restoring it.");
        QVERIFY(treeListing(m_box->root()) != installed);
        QCOMPARE(PluginUpdater::tidyInstallFolder(m_box->root()), 0);
        QCOMPARE(treeListing(m_box->root()), installed);
        QVERIFY(!QFileInfo::exists(m_box->root() + ".update-journal"));
    }
    // The next start after a folder swap cut between its two moves; a journal this program could
    // not have written is dropped without touching anything.
    void recoversFromJournal()
    {
        const QString root = m_box->root();
        const QString journal = root + ".update-journal";
        const QByteArray installed = treeListing(root);
        const QString backup = m_box->staging() + "/previous";
        QVERIFY(QDir().mkpath(m_box->staging()));
        QVERIFY(QDir().rename(root, backup));
        test::writeFile(journal, "{\"way\":\"folder\",\"backup\":\"" + backup.toUtf8() + "\"}");
        QCOMPARE(PluginUpdater::tidyInstallFolder(root), 0);
        QCOMPARE(treeListing(root), installed);
        QVERIFY(!QFileInfo::exists(journal));

        const QByteArray escape = QDir(root).relativeFilePath(outside() + "/keep.txt").toUtf8();
        QVERIFY(escape.startsWith("../"));
        test::writeFile(journal, "{\"way\":\"files\",\"done\":0,\"entries\":[{\"path\":\"" +
                                     escape + "\",\"sha256\":\"\",\"replaces\":false}]}");
        PluginUpdater::tidyInstallFolder(root);
        QCOMPARE(test::readFile(outside() + "/keep.txt"), "untouched");
        QVERIFY(!QFileInfo::exists(journal));
    }
    // Signatures as `openssl dgst -sha256 -sign` writes them, turned into the r||s that CNG
    // takes (r and s as `openssl asn1parse` prints them), and checked with a P-256 key.
    void signatureDer_data()
    {
        QTest::addColumn<QByteArray>("der"); // hex
        QTest::addColumn<QByteArray>("raw"); // hex; empty: refused
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<SignatureCheck>("check"); // over "{"version":"1.0.2"}\n"
        const QByteArray key = "-----BEGIN PUBLIC KEY-----\n"
                               "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAET2WdZzgr5xnaYE4KeLT7bw1AbWv6\n"
                               "FD/l+f9AR7UcYImfuBSMe9/mrbfHXIGF6byc5c2ZREHheABSEsi4yQKnFw==\n"
                               "-----END PUBLIC KEY-----\n";
        const QByteArray p384 = "-----BEGIN PUBLIC KEY-----\n"
                                "MHYwEAYHKoZIzj0CAQYFK4EEACIDYgAE0eOJ1TEe0RtzC2uZCZPQbOu70VO34ZJx\n"
                                "b8oBQIEyYOyTEtVBgVbEESTUSW+gBC9SR6diR8ZhRf0lBG7Xz4t1/P6KmRsu2JWd\n"
                                "BxoXYFKVykthnC4KXubxd2oW1pyKT9c1\n"
                                "-----END PUBLIC KEY-----\n";
        const QByteArray leadingZero =
            "3045022100c7db60fd8b9e985140c1d5cd451c7c3b6e63ed569978c9e63ae602ca23c2f4e1022018b14e"
            "4df68d98e9fed353721ee96c90a7193df6212f7b0b7cb577cf8fec7fa0";
        const QByteArray shortS =
            "3044022100bdb03dfe3abdd62f7f791d0f07dc9eb1a223c45d6f05eaca07c3fa3b81a67699021f7ac6ea"
            "a00701b609c26404481f660f92cc8257d86ea11ad27c6c7e6ac71429";
        const QByteArray one = QByteArray(62, '0') + "01";
        const auto refused = [&](const char* name, const QByteArray& der) {
            QTest::newRow(name) << der << QByteArray() << key << SignatureCheck::Malformed;
        };
        const auto verified =
            [&](const char* name, const QByteArray& der, const char* raw, const QByteArray& with) {
                QTest::newRow(name)
                    << der << QByteArray(raw) << with
                    << (with == key ? SignatureCheck::Verified : SignatureCheck::NoUsableKey);
            };
        verified("r with a leading zero", leadingZero,
                 "c7db60fd8b9e985140c1d5cd451c7c3b6e63ed569978c9e63ae602ca23c2f4e1"
                 "18b14e4df68d98e9fed353721ee96c90a7193df6212f7b0b7cb577cf8fec7fa0",
                 key);
        verified("s of 31 bytes", shortS,
                 "bdb03dfe3abdd62f7f791d0f07dc9eb1a223c45d6f05eaca07c3fa3b81a67699"
                 "007ac6eaa00701b609c26404481f660f92cc8257d86ea11ad27c6c7e6ac71429",
                 key);
        verified("key on P-384", shortS,
                 "bdb03dfe3abdd62f7f791d0f07dc9eb1a223c45d6f05eaca07c3fa3b81a67699"
                 "007ac6eaa00701b609c26404481f660f92cc8257d86ea11ad27c6c7e6ac71429",
                 p384);
        QTest::newRow("r = s = 1")
            << QByteArray("3006020101020101") << one + one << key << SignatureCheck::Mismatch;
        refused("cut short", leadingZero.chopped(2));
        refused("one byte extra", leadingZero + "00");
        refused("one byte extra inside", "3046" + leadingZero.mid(4) + "00");
        refused("long-form length", "308145" + leadingZero.mid(4));
        refused("negative r", "3006020180020101");
        refused("needless zero", "300702020001020101");
        refused("r of 33 value bytes", "3026022101" + QByteArray(64, '1') + "020101");
        refused("r = 0", "3006020100020101");
        refused("integer length past the end", "3006020101020201");
        refused("three integers", "3009020101020101020101");
        refused("not a sequence", "3106020101020101");
        refused("empty", "");
    }
    void signatureDer()
    {
        QFETCH(QByteArray, der);
        QFETCH(QByteArray, raw);
        QFETCH(QByteArray, key);
        QFETCH(SignatureCheck, check);
        const QByteArray bytes = QByteArray::fromHex(der);
        const auto converted = signature::derToRaw(
            {reinterpret_cast<const std::uint8_t*>(bytes.data()), std::size_t(bytes.size())});
        QCOMPARE(converted
                     ? QByteArray(reinterpret_cast<const char*>(converted->data()), 64).toHex()
                     : QByteArray(),
                 raw);
        QCOMPARE(verifyManifestSignature("{\"version\":\"1.0.2\"}\n", bytes, {key}), check);
        if (check == SignatureCheck::Verified) // one byte of the manifest changed
            QCOMPARE(verifyManifestSignature("{\"version\":\"1.0.3\"}\n", bytes, {key}),
                     SignatureCheck::Mismatch);
    }
    // A development build also accepts the key VANTORELLE_UPDATE_KEY names, from a file of at
    // most 16 KiB.
    void developmentKey()
    {
        qputenv("VANTORELLE_UPDATE_KEY", m_box->publicKeyFile().toUtf8());
        QVERIFY(developmentUpdateKey().startsWith("-----BEGIN PUBLIC KEY-----\n"));
        test::writeFile(m_box->path("large.pem"), QByteArray(16 * 1024 + 1, '\n'));
        qputenv("VANTORELLE_UPDATE_KEY", m_box->path("large.pem").toUtf8());
        QTest::ignoreMessage(QtWarningMsg, qPrintable("[vantorelle] no update key read from " +
                                                      m_box->path("large.pem")));
        QCOMPARE(developmentUpdateKey(), QByteArray());
        qunsetenv("VANTORELLE_UPDATE_KEY");
        QCOMPARE(developmentUpdateKey(), QByteArray());
    }
    // A manifest counts only with a signature by an accepted key over its exact bytes.
    void signedManifest_data()
    {
        QTest::addColumn<QString>("signature");
        QTest::addColumn<State>("state");
        QTest::newRow("signed") << "signed" << Installed;
        QTest::newRow("signed, second accepted key") << "second key" << Installed;
        QTest::newRow("not found") << "404" << Failed;
        QTest::newRow("signed with another key") << "other key" << Failed;
        QTest::newRow("manifest changed after signing") << "changed" << Failed;
        QTest::newRow("cut short") << "cut" << Failed;
        QTest::newRow("garbage") << "garbage" << Failed;
        QTest::newRow("a megabyte") << "huge" << Failed;
        QTest::newRow("no answer in time") << "stall" << Failed;
    }
    void signedManifest()
    {
        QFETCH(QString, signature);
        QFETCH(State, state);
        const QString otherKey = m_work.filePath("other-key.pem");
        const QByteArray otherPublic = test::makeSigningKey(otherKey);
        QVERIFY(!otherPublic.isEmpty());
        configure([&](UpdaterConfig& c) {
            c.requestTimeoutMs = 500;
            if (signature == "second key")
                c.publicKeys.prepend(otherPublic);
        });
        const QByteArray body =
            QJsonDocument(m_server.publish("1.0.2", Platform, m_box->package("1.0.2"))).toJson();
        m_server.setManifestResponse(sim::HttpResponse::text(body, 200, "application/json"));
        const QByteArray good = sim::UpdateServer::sign(body, m_box->signingKey());
        sim::HttpResponse answer = sim::HttpResponse::text(good, 200, "application/octet-stream");
        if (signature == "changed")
            m_server.setManifestResponse(sim::HttpResponse::text(
                QByteArray(body).replace("1.0.2", "1.0.3"), 200, "application/json"));
        answer.status = signature == "404" ? 404 : 200;
        answer.stall = signature == "stall";
        if (signature == "other key")
            answer.body = sim::UpdateServer::sign(body, otherKey);
        if (signature == "cut")
            answer.body.chop(1);
        if (signature == "garbage")
            answer.body = "not a signature";
        if (signature == "huge")
            answer.body += QByteArray(1 << 20, '\0');
        m_server.setSignatureResponse(answer);

        m_updater->check(false);
        QTRY_VERIFY(!m_updater->isBusy());
        QCOMPARE(m_updater->state(), state == Failed ? Idle : Available);
        const int requests = m_server.signatureRequests();
        const int downloads = m_server.packageRequests("package.zip");
        m_updater->check(true);
        QVERIFY(waitFor({Available, Failed}));
        QCOMPARE(m_server.signatureRequests(), requests + 1);
        QCOMPARE(m_updater->statusText(),
                 state == Failed ? Unverified : "Version 1.0.2 is available.");
        QVERIFY(install()); // nothing to install after a failed check
        QCOMPARE(m_updater->state(), state);
        QCOMPARE(m_server.packageRequests("package.zip"), downloads + (state == Failed ? 0 : 1));
    }
    // Cancel stops the download, or the archive tool before the swap, and offers the update
    // again; then it installs. At any other time it does nothing.
    void cancel_data()
    {
        QTest::addColumn<bool>("unpacking");
        QTest::newRow("while downloading") << false;
        QTest::newRow("while unpacking") << true;
    }
    void cancel()
    {
        QFETCH(bool, unpacking);
        const QString tool = m_box->path("tar"), pid = m_box->path("pid");
        test::writeFile(tool, "#!/bin/sh\necho $$ >'" + pid.toUtf8() + ".new'\nmv '" +
                                  pid.toUtf8() + ".new' '" + pid.toUtf8() + "'\nexec sleep 30\n");
        QFile::setPermissions(tool, QFile::ReadOwner | QFile::ExeOwner);
        const UpdaterConfig config = m_updater->config();
        configure([&](UpdaterConfig& c) { c.archiveTool = unpacking ? tool : c.archiveTool; });
        const QByteArray archive = m_box->package("1.0.2");
        sim::HttpResponse delivery;
        delivery.stall = !unpacking;
        QVERIFY(offer(archive, {}, delivery));
        m_updater->cancel();
        QCOMPARE(m_updater->state(), Available);
        m_updater->install();
        if (unpacking)
            QTRY_VERIFY(QFile::exists(pid)); // the tool runs
        QCOMPARE(m_updater->state(), unpacking ? Installing : Downloading);
        QVERIFY(m_updater->canCancel());
        m_updater->cancel();
        QCOMPARE(m_updater->state(), Available);
        QCOMPARE(m_updater->statusText(), "Version 1.0.2 is available.");
        QVERIFY(!m_updater->isBusy() && !m_updater->canCancel());
        QCOMPARE(stagingEntries(), QStringList());
        if (unpacking) // killed, and gone
            QVERIFY(!QFileInfo::exists("/proc/" + test::readFile(pid).trimmed()));

        m_updater->setConfig(config);
        m_server.setPackage("package.zip", archive);
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(), InstalledText);
        m_updater->cancel();
        QCOMPARE(m_updater->state(), Installed);
    }
    // A package address on https that redirects to plain http is not followed.
    void redirectToHttp()
    {
        const QSslCertificate certificate(QByteArray(sim::kFeedCertificatePem), QSsl::Pem);
        sim::HttpServer secure;
        QVERIFY(secure.listenTls(certificate, QSslKey(QByteArray(sim::kFeedPrivateKeyPem), QSsl::Ec,
                                                      QSsl::Pem, QSsl::PrivateKey)));
        const QSslConfiguration before = QSslConfiguration::defaultConfiguration();
        QSslConfiguration trusting = before;
        trusting.addCaCertificate(certificate);
        QSslConfiguration::setDefaultConfiguration(trusting);
        const auto restore =
            qScopeGuard([&] { QSslConfiguration::setDefaultConfiguration(before); });
        const QByteArray plain = m_server.packageUrl("package.zip").toEncoded();
        secure.route("GET", "/package.zip", [plain](const sim::HttpRequest&) {
            return sim::HttpResponse::text("moved", 302).withHeader("Location", plain);
        });
        QVERIFY(offer({}, {{"url", secure.url("/package.zip").toString()}}));
        const int requests = m_server.packageRequests("package.zip");
        QVERIFY(install());
        QCOMPARE(m_updater->statusText(), Unfinished);
        QCOMPARE(secure.requestCount("GET", "/package.zip"), 1);
        QCOMPARE(m_server.packageRequests("package.zip"), requests);
    }
};

QTEST_GUILESS_MAIN(TestUpdater)
#include "tst_updater.moc"
