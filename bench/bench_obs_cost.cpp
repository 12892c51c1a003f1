// What the plug-in costs OBS, measured in real libobs (headless under Xvfb, 30 fps):
//   - load: the time obs_open_module and obs_init_module (our obs_module_load) take, the time of
//     obs_post_load_modules, and the resident memory the process gains by loading the plug-in and
//     letting it start (no sources yet);
//   - cost: a minute of a 10 Hz game clock from a device on the network (TLS feed) shown by ten
//     score texts, one of them the clock. CPU time on every thread of the process but the
//     simulated device's, taken from the kernel per thread (schedstat, nanoseconds), set against
//     the same scene made of ten plain FreeType sources whose clock text the program itself
//     changes ten times a second. The difference is what the plug-in adds; each wrapped FreeType
//     source's "update" signals show which texts were rebuilt.
//
// bench_obs_cost [--seconds S] [--rounds R] [--json]
// Each part runs in a child process of its own (one OBS per process); needs an X display. The S
// seconds of clock (default 60) are split into R runs of each kind (default 3), alternating.

#include "atomic_file.h"
#include "common/obs_harness.h"
#include "libobs_bench.h"
#include "sim/feed_server.h"

#include <obs-module.h>
#include <obs.hpp>
#include <util/platform.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <map>

using namespace vantorelle;
using namespace vantorelle::test;
using namespace vantorelle::bench;

namespace {

constexpr uint32_t kFps = 30;
constexpr int kClockHz = 10;
constexpr int kTexts = 10;

// The ten texts of a basketball scoreboard: the clock changes with every envelope, the rest stay.
constexpr std::array<const char*, kTexts> kFields = {
    "clock",      "home_score", "away_score", "period",        "home_fouls",
    "away_fouls", "home_name",  "away_name",  "home_timeouts", "away_timeouts"};

struct Options
{
    int seconds = 60;
    // The clock's time is split into this many runs of each kind, alternating, and the medians
    // compared: the rendering threads' CPU time wanders between runs by more than the plug-in adds.
    int rounds = 3;
    bool json = false;
    QString part; // in a child: "load", "plugin" or "plain"
};

double msSince(uint64_t startNs)
{
    return double(os_gettime_ns() - startNs) / 1e6;
}

// Turns the event loop for `ms` milliseconds.
void runFor(int ms)
{
    QTimer::singleShot(ms, qApp, [] { QCoreApplication::exit(0); });
    QCoreApplication::exec();
}

// Resident memory of the process, in KiB.
qint64 residentKiB()
{
    QFile status("/proc/self/status");
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

// Resident memory by what it holds, in KiB: data (heap and anonymous mappings), the plug-in's own
// code, and the pages of shared libraries (Qt, OpenSSL...), which OBS itself links and uses.
struct MemoryParts
{
    qint64 data = 0;
    qint64 code = 0;
    qint64 libraries = 0;
};

MemoryParts memoryParts()
{
    MemoryParts parts;
    QFile maps("/proc/self/smaps");
    if (!maps.open(QIODevice::ReadOnly))
        return parts;
    qint64* current = &parts.data;
    for (const QByteArray& line : maps.readAll().split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() >= 5 && words[0].contains('-') && !words[0].endsWith(':')) {
            const QByteArray path = words.size() >= 6 ? words[5] : QByteArray();
            if (path.isEmpty() || path.startsWith('['))
                current = &parts.data;
            else if (path.contains("vantorelle-obs"))
                current = &parts.code;
            else
                current = &parts.libraries;
        } else if (words.size() >= 2 && words[0] == "Rss:") {
            *current += words[1].toLongLong();
        }
    }
    return parts;
}

// CPU time of every thread of the process, in nanoseconds, by thread id, with the threads' names.
struct ThreadTimes
{
    std::map<int, uint64_t> ns;
    std::map<int, QString> names;
};

ThreadTimes threadTimes()
{
    ThreadTimes times;
    const QStringList tids = QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& tid : tids) {
        QFile stat("/proc/self/task/" + tid + "/schedstat");
        QFile comm("/proc/self/task/" + tid + "/comm");
        if (!stat.open(QIODevice::ReadOnly) || !comm.open(QIODevice::ReadOnly))
            continue; // the thread ended meanwhile
        times.ns[tid.toInt()] = stat.readAll().split(' ').first().toULongLong();
        times.names[tid.toInt()] = QString::fromUtf8(comm.readAll().trimmed());
    }
    return times;
}

// The plug-in's settings: following `feedPort`'s device, never the real portal, no update check.
void writePluginSettings(const QString& config, quint16 feedPort)
{
    const QString folder = config + "/vantorelle-obs"; // obs_module_config_path's folder
    QDir().mkpath(folder);
    const QJsonObject settings{
        {"auto_check_updates", false},
        {"selected_device", "bench-lan"},
        {"routes", QJsonObject{{"bench-lan", "lan"}}},
        {"lan", QJsonObject{{"bench-lan", QJsonObject{{"host", "127.0.0.1"},
                                                      {"token", "bench-token"},
                                                      {"name", "Bench"}}}}}};
    const QByteArray bytes = QJsonDocument(settings).toJson(QJsonDocument::Compact);
    if (!saveFileAtomically(folder + "/settings.json", bytes))
        fail("cannot write settings.json");
    qputenv("VANTORELLE_PORTAL_URL", "http://127.0.0.1:9");
    qputenv("VANTORELLE_FEED_PORT", QByteArray::number(feedPort));
}

void loadPart()
{
    QTemporaryDir config;
    writePluginSettings(config.path(), 9); // nothing listens: the plug-in keeps trying
    startObs(config.path(), kFps);
    // OBS has built its main window when it loads modules: fonts, styles and the usual widgets
    // are set up already.
    QWidget window;
    auto* layout = new QVBoxLayout(&window);
    auto* scroll = new QScrollArea;
    scroll->setWidget(new QLabel(QStringLiteral("<b>Scenes</b>")));
    layout->addWidget(scroll);
    layout->addWidget(new QPushButton(QStringLiteral("Start Streaming")));
    layout->addWidget(new QCheckBox(QStringLiteral("Studio Mode")));
    layout->addWidget(new QComboBox);
    layout->addWidget(new QLineEdit);
    layout->addWidget(new QSpinBox);
    layout->addWidget(new QListWidget);
    window.show();
    runFor(500);
    const qint64 before = residentKiB();
    const MemoryParts partsBefore = memoryParts();

    obs_module_t* module = nullptr;
    uint64_t start = os_gettime_ns();
    if (obs_open_module(&module, VANTORELLE_MODULE_FILE, VANTORELLE_MODULE_DATA) != MODULE_SUCCESS)
        fail("cannot open the plug-in");
    const double openMs = msSince(start);
    start = os_gettime_ns();
    if (!obs_init_module(module))
        fail("the plug-in did not load");
    const double loadMs = msSince(start);
    start = os_gettime_ns();
    obs_post_load_modules();
    const double postLoadMs = msSince(start);
    // Whatever the plug-in starts at load (servers, timers, its first connection attempts).
    runFor(2000);
    const qint64 after = residentKiB();
    const MemoryParts partsAfter = memoryParts();
    report({{"open_ms", openMs},
            {"load_ms", loadMs},
            {"post_load_ms", postLoadMs},
            {"rss_before_kib", before},
            {"rss_after_kib", after},
            {"rss_added_kib", after - before},
            {"data_added_kib", partsAfter.data - partsBefore.data},
            {"code_added_kib", partsAfter.code - partsBefore.code},
            {"libraries_added_kib", partsAfter.libraries - partsBefore.libraries}});
    obs_shutdown();
}

QJsonObject envelope(int tick)
{
    // A clock running down in tenths from 12:00.0.
    const int tenths = std::max(0, 7200 - tick);
    const QString clock = QString("%1:%2.%3")
                              .arg(tenths / 600)
                              .arg(tenths / 10 % 60, 2, 10, QChar('0'))
                              .arg(tenths % 10);
    return {{"type", "state"},
            {"sport", "basketball"},
            {"fields", QJsonObject{{"clock", clock},
                                   {"home_score", 54},
                                   {"away_score", 49},
                                   {"period", 3},
                                   {"home_fouls", 4},
                                   {"away_fouls", 6},
                                   {"home_name", "Harbour"},
                                   {"away_name", "Valley"},
                                   {"home_timeouts", 2},
                                   {"away_timeouts", 3}}}};
}

std::atomic<int> s_updates[kTexts];

void onUpdate(void* index, calldata_t*)
{
    s_updates[reinterpret_cast<intptr_t>(index)].fetch_add(1);
}

// The minute of clock: with the plug-in ("plugin") or the same work done on plain FreeType
// sources by this program ("plain").
void clockPart(const Options& options)
{
    const bool plugin = options.part == "plugin";
    QTemporaryDir config;

    // The device lives on a thread of its own, so that its work is not counted.
    QThread deviceThread;
    deviceThread.setObjectName("device");
    deviceThread.start();
    std::atomic<int> deviceTid{0};
    std::atomic<int> authenticated{0};
    std::atomic<quint16> feedPort{0};
    std::atomic<int> sent{0};
    sim::FeedServer* feed = nullptr;
    QTimer* ticker = nullptr;
    QObject onDeviceThread;
    onDeviceThread.moveToThread(&deviceThread);
    QMetaObject::invokeMethod(
        &onDeviceThread,
        [&] {
            deviceTid = int(gettid());
            feed = new sim::FeedServer;
            feed->setExpectedToken("bench-token");
            QObject::connect(feed, &sim::FeedServer::clientAuthenticated, feed,
                             [&] { ++authenticated; });
            feedPort = feed->start() ? feed->serverPort() : 0;
            ticker = new QTimer;
            ticker->setTimerType(Qt::PreciseTimer);
            ticker->setInterval(1000 / kClockHz);
            QObject::connect(ticker, &QTimer::timeout, feed,
                             [&] { feed->broadcast(envelope(sent++)); });
        },
        Qt::BlockingQueuedConnection);
    if (!feedPort)
        fail("the simulated feed does not listen (no TLS backend?)");

    writePluginSettings(config.path(), feedPort);
    startObs(config.path(), kFps);
    if (plugin && !openModule(VANTORELLE_MODULE_FILE, VANTORELLE_MODULE_DATA))
        fail("cannot load the plug-in");

    obs_scene_t* scene = obs_scene_create("bench");
    std::array<obs_source_t*, kTexts> texts{};
    std::array<obs_source_t*, kTexts> freetype{}; // what renders each text
    const QJsonObject first = envelope(0)["fields"].toObject();
    for (int i = 0; i < kTexts; ++i) {
        OBSDataAutoRelease data = obs_data_create();
        const QByteArray name = QByteArray("text ") + kFields[size_t(i)];
        if (plugin) {
            obs_data_set_string(data, "template",
                                (QByteArray("{") + kFields[size_t(i)] + "}").constData());
            const QList<obs_source_t*> before = sourcesOfType("text_ft2_source_v2");
            texts[size_t(i)] = obs_source_create("vantorelle_text", name, data, nullptr);
            for (obs_source_t* made : sourcesOfType("text_ft2_source_v2")) {
                if (!before.contains(made))
                    freetype[size_t(i)] = made;
            }
        } else {
            const QString text = first[kFields[size_t(i)]].toVariant().toString();
            obs_data_set_string(data, "text", text.toUtf8().constData());
            texts[size_t(i)] = obs_source_create("text_ft2_source_v2", name, data, nullptr);
            freetype[size_t(i)] = texts[size_t(i)];
        }
        if (!texts[size_t(i)] || !freetype[size_t(i)])
            fail("cannot create the text sources");
        obs_sceneitem_t* item = obs_scene_add(scene, texts[size_t(i)]);
        vec2 position{float(20 + 300 * (i % 2)), float(10 + 34 * (i / 2))};
        obs_sceneitem_set_pos(item, &position);
        signal_handler_connect(obs_source_get_signal_handler(freetype[size_t(i)]), "update",
                               onUpdate, reinterpret_cast<void*>(intptr_t(i)));
    }
    obs_set_output_source(0, obs_scene_get_source(scene));

    // The plain scene's clock is changed here, as the plug-in changes its inner source.
    int plainTick = 0;
    QTimer plainClock;
    plainClock.setTimerType(Qt::PreciseTimer);
    plainClock.setInterval(1000 / kClockHz);
    QObject::connect(&plainClock, &QTimer::timeout, [&] {
        OBSDataAutoRelease settings = obs_source_get_settings(freetype[0]);
        OBSDataAutoRelease copy = obs_data_create();
        obs_data_apply(copy, settings);
        const QString clock = envelope(++plainTick)["fields"].toObject()["clock"].toString();
        obs_data_set_string(copy, "text", clock.toUtf8().constData());
        obs_source_update(freetype[0], copy);
    });

    if (plugin) {
        const uint64_t deadline = os_gettime_ns() + 20'000'000'000ull;
        while (authenticated == 0 && os_gettime_ns() < deadline)
            runFor(50);
        if (authenticated == 0)
            fail("the plug-in did not connect to the feed");
    }
    QMetaObject::invokeMethod(ticker, qOverload<>(&QTimer::start));
    if (!plugin)
        plainClock.start();
    runFor(2000); // settle: the first envelopes, the first frames
    const int sentBefore = sent;
    int updatesBefore[kTexts];
    for (int i = 0; i < kTexts; ++i)
        updatesBefore[i] = s_updates[i];
    const int plainBefore = plainTick;
    const ThreadTimes start = threadTimes();
    const uint64_t startNs = os_gettime_ns();

    runFor(options.seconds * 1000);

    const ThreadTimes end = threadTimes();
    const double wallS = double(os_gettime_ns() - startNs) / 1e9;
    const int envelopes = plugin ? sent - sentBefore : plainTick - plainBefore;
    QJsonObject updates;
    for (int i = 0; i < kTexts; ++i)
        updates[kFields[size_t(i)]] = s_updates[i] - updatesBefore[i];
    QMetaObject::invokeMethod(
        ticker,
        [&] {
            delete ticker;
            delete feed;
        },
        Qt::BlockingQueuedConnection);
    deviceThread.quit();
    deviceThread.wait();

    // Main thread (OBS's UI thread, where the plug-in works), the graphics thread, Mesa's software
    // renderer (its threads stand in for a GPU, which would carry that work off the CPU), the
    // others.
    double mainMs = 0, graphicsMs = 0, rendererMs = 0, otherMs = 0;
    QJsonObject others;
    for (const auto& [tid, ns] : end.ns) {
        if (tid == deviceTid)
            continue;
        const auto was = start.ns.find(tid);
        const double spent = double(ns - (was == start.ns.end() ? 0 : was->second)) / 1e6;
        const QString name = end.names.at(tid);
        if (tid == int(getpid()))
            mainMs += spent;
        else if (name.startsWith("libobs: graphi"))
            graphicsMs += spent;
        else if (name.startsWith("llvmpipe"))
            rendererMs += spent;
        else {
            otherMs += spent;
            others[name] = others[name].toDouble() + spent;
        }
    }

    report({{"part", options.part},
            {"seconds", wallS},
            {"envelopes", envelopes},
            {"main_ms", mainMs},
            {"graphics_ms", graphicsMs},
            {"renderer_ms", rendererMs},
            {"other_ms", otherMs},
            {"other_threads", others},
            {"updates", updates}});

    for (int i = 0; i < kTexts; ++i)
        signal_handler_disconnect(obs_source_get_signal_handler(freetype[size_t(i)]), "update",
                                  onUpdate, reinterpret_cast<void*>(intptr_t(i)));
    obs_set_output_source(0, nullptr);
    obs_scene_release(scene);
    for (obs_source_t* text : texts)
        obs_source_release(text);
    obs_shutdown();
}

QJsonObject runChild(const QString& part, int seconds)
{
    const QJsonObject result =
        bench::runChild({"--part", part, "--seconds", QString::number(seconds)});
    if (result.isEmpty())
        return {{"error", QString("the %1 run failed").arg(part)}};
    return result;
}

constexpr std::array<const char*, 4> kThreadKeys = {"main_ms", "graphics_ms", "other_ms",
                                                    "renderer_ms"};

// Runs of one kind as one: each thread class's median CPU time per second, over the whole time;
// envelopes and rebuilt texts summed; and how far the graphics thread wandered between runs.
QJsonObject merged(const QList<QJsonObject>& runs)
{
    double seconds = 0;
    int envelopes = 0;
    QJsonObject updates;
    std::map<QString, std::vector<double>> perSecond;
    int crashes = 0;
    for (const QJsonObject& run : runs) {
        if (!run.contains("main_ms"))
            return run;
        crashes += run["crashed_at_shutdown"].toBool() ? 1 : 0;
        seconds += run["seconds"].toDouble();
        envelopes += run["envelopes"].toInt();
        const QJsonObject counts = run["updates"].toObject();
        for (auto it = counts.begin(); it != counts.end(); ++it)
            updates[it.key()] = updates[it.key()].toInt() + it.value().toInt();
        for (const char* key : kThreadKeys)
            perSecond[key].push_back(run[key].toDouble() / run["seconds"].toDouble());
    }
    QJsonObject result{{"seconds", seconds},
                       {"envelopes", envelopes},
                       {"updates", updates},
                       {"runs", int(runs.size())},
                       {"crashed_at_shutdown", crashes}};
    for (auto& [key, values] : perSecond) {
        std::sort(values.begin(), values.end());
        result[key] = values[values.size() / 2] * seconds;
        if (key == "graphics_ms")
            result["graphics_spread_ms"] = (values.back() - values.front()) * seconds;
    }
    return result;
}

int runAll(const Options& options)
{
    QJsonObject all;
    all["load"] = runChild("load", 0);
    QList<QJsonObject> plainRuns, pluginRuns;
    const int each = std::max(1, options.seconds / options.rounds);
    for (int round = 0; round < options.rounds; ++round) {
        plainRuns << runChild("plain", each);
        pluginRuns << runChild("plugin", each);
    }
    all["plain"] = merged(plainRuns);
    all["plugin"] = merged(pluginRuns);
    all["rounds"] = options.rounds;
    const QJsonObject plain = all["plain"].toObject();
    const QJsonObject plugin = all["plugin"].toObject();
    if (plain.contains("main_ms") && plugin.contains("main_ms")) {
        // What the plug-in adds, as a share of one core over the run.
        const double seconds = plugin["seconds"].toDouble();
        const auto added = [&](const char* key) {
            return plugin[key].toDouble() -
                   plain[key].toDouble() * seconds / plain["seconds"].toDouble();
        };
        const double total = added("main_ms") + added("graphics_ms") + added("other_ms");
        all["added"] = QJsonObject{
            {"main_ms", added("main_ms")},
            {"graphics_ms", added("graphics_ms")},
            {"other_ms", added("other_ms")},
            {"renderer_ms", added("renderer_ms")},
            {"total_ms", total},
            {"core_percent", total / (seconds * 10.0)},
            {"main_us_per_envelope", added("main_ms") * 1000.0 / plugin["envelopes"].toDouble()},
            {"total_us_per_envelope", total * 1000.0 / plugin["envelopes"].toDouble()}};
    }
    if (options.json) {
        std::printf("%s\n", QJsonDocument(all).toJson(QJsonDocument::Compact).constData());
        return 0;
    }
    const QJsonObject load = all["load"].toObject();
    std::printf("load: obs_open_module %.1f ms, obs_init_module %.1f ms (goal < 20 ms), "
                "obs_post_load_modules %.1f ms\n",
                load["open_ms"].toDouble(), load["load_ms"].toDouble(),
                load["post_load_ms"].toDouble());
    std::printf("resident memory added by the plug-in: %.1f MiB (goal < 5 MiB; %.1f -> %.1f MiB): "
                "data %.1f MiB, its code %.1f MiB, pages of shared libraries %.1f MiB\n",
                double(load["rss_added_kib"].toInt()) / 1024.0,
                double(load["rss_before_kib"].toInt()) / 1024.0,
                double(load["rss_after_kib"].toInt()) / 1024.0,
                double(load["data_added_kib"].toInt()) / 1024.0,
                double(load["code_added_kib"].toInt()) / 1024.0,
                double(load["libraries_added_kib"].toInt()) / 1024.0);
    for (const char* part : {"plain", "plugin"}) {
        const QJsonObject r = all[part].toObject();
        std::printf("%s: %.1f s, %d clock changes; CPU ms (medians of the runs): main %.1f, "
                    "graphics %.1f, others %.1f, software renderer %.1f\n",
                    part, r["seconds"].toDouble(), r["envelopes"].toInt(), r["main_ms"].toDouble(),
                    r["graphics_ms"].toDouble(), r["other_ms"].toDouble(),
                    r["renderer_ms"].toDouble());
        std::printf("  texts rebuilt: %s\n",
                    QJsonDocument(r["updates"].toObject()).toJson(QJsonDocument::Compact).data());
    }
    const QJsonObject added = all["added"].toObject();
    std::printf(
        "added by the plug-in on OBS's threads: main %.1f ms, graphics %.1f ms, others %.1f "
        "ms = %.3f%% of one core (goal < 0.5%%); %.0f us per envelope on the main thread; "
        "software renderer %+.1f ms\n",
        added["main_ms"].toDouble(), added["graphics_ms"].toDouble(), added["other_ms"].toDouble(),
        added["core_percent"].toDouble(), added["main_us_per_envelope"].toDouble(),
        added["renderer_ms"].toDouble());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const QByteArray arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--json")
            options.json = true;
        else if (arg == "--part" && hasValue)
            options.part = QString::fromLatin1(argv[++i]);
        else if (arg == "--seconds" && hasValue)
            options.seconds = std::max(1, atoi(argv[++i]));
        else if (arg == "--rounds" && hasValue)
            options.rounds = std::max(1, atoi(argv[++i]));
        else {
            std::fprintf(stderr, "usage: bench_obs_cost [--seconds S] [--rounds R] [--json]\n");
            return 2;
        }
    }
    if (options.part.isEmpty()) {
        QCoreApplication app(argc, argv);
        return runAll(options);
    }
    // The plug-in runs in OBS's Qt application, as in OBS itself.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    if (options.part == "load")
        loadPart();
    else
        clockPart(options);
    return 0;
}
