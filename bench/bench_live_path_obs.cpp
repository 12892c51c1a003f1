// The live path in real libobs, headless at 30 fps: from the moment an envelope's bytes go to the
// simulated device (the TLS feed of a device on the network, or a pseudo-terminal for USB) to
//   (a) the wrapped FreeType source's settings carrying the new text (seen on the UI thread right
//       after the event that delivered it), and the inner source's "update" signal (OBS applies
//       the text on its video thread);
//   (b) the first frame OBS renders with the source at its new width.
// The HTTP overlay route follows the same feed and serves the scorebug page on the plug-in's
// browser port to a headless Chromium, which plays OBS's browser source (Chromium as well), and
// times from the same moment to the page's text showing the score (when the page's
// MutationObserver sees it) and to the first animation frame after that, the frame the page
// paints showing it. Chromium's clock is the epoch, so the time of sending is taken on both.
// Beside it, as an anchor, OBS's own FreeType source reading a file that is replaced per envelope
// as `vantorelle-bridge watch --files` replaces it (saveFileAtomically), to the frame showing it.
//
// bench_live_path_obs [N] [--json] [--anchor-n M] [--pace-ms P]
// Runs each route in a child process of its own (one OBS per process, as OBS runs); needs an X
// display (xvfb-run). N envelopes per plug-in route (default 100), one every P ms (default 150,
// so each lands in a frame of its own); M file replacements for the anchor (default 20: the
// FreeType source looks at its file once a second).

#include "atomic_file.h"
#if VANTORELLE_BENCH_BROWSER
#include "browser/headless_browser.h"
#endif
#include "common/obs_harness.h"
#include "libobs_bench.h"
#include "sim/feed_server.h"
#include "sim/usb_device.h"

#include <obs-module.h>
#include <obs.hpp>
#include <util/platform.h>

#include <QApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

using namespace vantorelle;
using namespace vantorelle::test;
using namespace vantorelle::bench;

namespace {

constexpr uint32_t kFps = 30;
constexpr uint64_t kMs = 1000000; // ns
constexpr uint64_t kStepTimeoutNs = 5000 * kMs;

struct Options
{
    int n = 100;
    int anchorN = 20;
    int paceMs = 150;
    bool json = false;
    QString route; // set in a child: "lan", "usb", "overlay" or "anchor"
};

// What OBS's video thread saw: every change of the measured source's width, and every frame.
struct FrameLog
{
    std::mutex mutex;
    obs_source_t* source = nullptr;
    uint32_t lastWidth = 0;
    std::vector<std::pair<uint64_t, uint32_t>> widthChanges; // time, new width
    std::vector<uint64_t> updateSignals;
    uint64_t frames = 0;
    uint64_t firstFrameNs = 0;
    uint64_t lastFrameNs = 0;
};

FrameLog s_frames;

// Wakes the UI thread's event loop, which waits for events rather than polling.
void wakeUiThread()
{
    QMetaObject::invokeMethod(
        qApp, [] {}, Qt::QueuedConnection);
}

void onRender(void*, uint32_t, uint32_t)
{
    const uint64_t now = os_gettime_ns();
    std::lock_guard lock(s_frames.mutex);
    if (s_frames.frames++ == 0)
        s_frames.firstFrameNs = now;
    s_frames.lastFrameNs = now;
    if (!s_frames.source)
        return;
    const uint32_t width = obs_source_get_width(s_frames.source);
    if (width != s_frames.lastWidth) {
        s_frames.lastWidth = width;
        s_frames.widthChanges.emplace_back(now, width);
        wakeUiThread();
    }
}

void onUpdateSignal(void*, calldata_t*)
{
    const uint64_t now = os_gettime_ns();
    std::lock_guard lock(s_frames.mutex);
    s_frames.updateSignals.push_back(now);
    wakeUiThread();
}

// Runs the event loop until `done` holds (true) or the deadline passes (false). Events wake it:
// the feed and the pseudo-terminal, OBS's threads through wakeUiThread(), and the deadline timer.
bool runUntil(const std::function<bool()>& done, uint64_t deadlineNs)
{
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.callOnTimeout([] {});
    while (!done()) {
        const uint64_t now = os_gettime_ns();
        if (now >= deadlineNs)
            return false;
        deadline.start(int((deadlineNs - now + kMs - 1) / kMs));
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void waitUntil(uint64_t timeNs)
{
    runUntil([] { return false; }, timeNs);
}

QString textOf(obs_source_t* source)
{
    OBSDataAutoRelease settings = obs_source_get_settings(source);
    return QString::fromUtf8(obs_data_get_string(settings, "text"));
}

QJsonObject stats(std::vector<double> values)
{
    if (values.empty())
        return {{"n", 0}};
    std::sort(values.begin(), values.end());
    const auto at = [&](double q) {
        // Nearest rank.
        const size_t rank = size_t(std::ceil(q * double(values.size())));
        return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
    };
    return {{"n", int(values.size())},
            {"min", values.front()},
            {"median", at(0.5)},
            {"p95", at(0.95)},
            {"max", values.back()}};
}

double ms(uint64_t fromNs, uint64_t toNs)
{
    return double(int64_t(toNs - fromNs)) / double(kMs);
}

// The score both routes send and the anchor writes: the width alternates with every envelope.
QString scoreText(int i)
{
    return i % 2 == 0 ? QStringLiteral("10 - 0") : QStringLiteral("1 - 0");
}

QJsonObject scoreEnvelope(int home)
{
    return {{"type", "state"},
            {"sport", "hockey"},
            {"fields", QJsonObject{{"home_score", home}, {"away_score", 0}}}};
}

// One route in this process: OBS starts, the plug-in follows the simulated device named in its
// settings, and `n` envelopes (file replacements for the anchor) are timed.
QJsonObject runRoute(const Options& options)
{
    const QString& route = options.route;
    QTemporaryDir config;
    const QString moduleConfig = config.filePath("vantorelle-obs");
    QDir().mkpath(moduleConfig);
    QJsonObject settings{{"server_enabled", false}, {"auto_check_updates", false}};
    sim::FeedServer feed;
    sim::UsbDevice usb;
    // The overlay route follows the same feed as "lan"; the plug-in serves the page as well.
    const bool overFeed = route == "lan" || route == "overlay";
    if (overFeed) {
        feed.setExpectedToken("bench-token");
        if (!feed.start())
            fail("the simulated feed does not listen (no TLS backend?)");
        qputenv("VANTORELLE_FEED_PORT", QByteArray::number(feed.serverPort()));
        settings["selected_device"] = "bench-lan";
        settings["routes"] = QJsonObject{{"bench-lan", "lan"}};
        settings["lan"] = QJsonObject{
            {"bench-lan",
             QJsonObject{{"host", "127.0.0.1"}, {"token", "bench-token"}, {"name", "Bench"}}}};
        if (route == "overlay") {
            // The browsers' port runs with the sharing server; both on ports free just now.
            QTcpServer sharing, browsers;
            if (!sharing.listen(QHostAddress::LocalHost) ||
                !browsers.listen(QHostAddress::LocalHost))
                fail("no free loopback port");
            settings["server_enabled"] = true;
            settings["server_port"] = sharing.serverPort();
            settings["browser_port"] = browsers.serverPort();
        }
    } else if (route == "usb") {
        usb.setPollInterval(1);
        if (!usb.start())
            fail("no pseudo-terminal");
        settings["selected_device"] = "bench-usb";
        settings["routes"] = QJsonObject{{"bench-usb", "usb"}};
        settings["links"] = QJsonObject{
            {"bench-usb", QJsonObject{{"usb_port", usb.portPath()}, {"name", "Bench"}}}};
    }
    if (!saveFileAtomically(moduleConfig + "/settings.json",
                            QJsonDocument(settings).toJson(QJsonDocument::Compact)))
        fail("cannot write settings.json");
    qputenv("VANTORELLE_PORTAL_URL", "http://127.0.0.1:9"); // never the real portal

    startObs(config.path(), kFps);
    if (!openModule(VANTORELLE_MODULE_FILE, VANTORELLE_MODULE_DATA))
        fail("cannot load the plug-in");

    const QString textFile = config.filePath("score.txt");
    obs_source_t* measured = nullptr; // whose width the frames show
    obs_source_t* inner = nullptr;    // the wrapped FreeType source
    if (route == "anchor") {
        saveFileAtomically(textFile, "0 - 0");
        OBSDataAutoRelease data = obs_data_create();
        obs_data_set_bool(data, "from_file", true);
        obs_data_set_string(data, "text_file", textFile.toUtf8().constData());
        measured = obs_source_create("text_ft2_source_v2", "anchor", data, nullptr);
    } else {
        OBSDataAutoRelease data = obs_data_create();
        obs_data_set_string(data, "template", "{home_score} - {away_score}");
        measured = obs_source_create("vantorelle_text", "score", data, nullptr);
        const QList<obs_source_t*> made = sourcesOfType("text_ft2_source_v2");
        if (made.size() != 1)
            fail("the score text made no FreeType source");
        inner = made.first();
    }
    if (!measured)
        fail("cannot create the text source");
    obs_scene_t* scene = obs_scene_create("bench");
    obs_scene_add(scene, measured);
    obs_set_output_source(0, obs_scene_get_source(scene));
    {
        std::lock_guard lock(s_frames.mutex);
        s_frames.source = measured;
    }
    obs_add_main_render_callback(onRender, nullptr);
    if (inner)
        signal_handler_connect(obs_source_get_signal_handler(inner), "update", onUpdateSignal,
                               nullptr);

    // Ready: the plug-in follows the device and shows its "0 - 0" (the anchor its file).
    const auto showing = [&](const QString& text) {
        if (inner && textOf(inner) != text)
            return false;
        std::lock_guard lock(s_frames.mutex);
        return s_frames.lastWidth > 0;
    };
    const uint64_t readyBy = os_gettime_ns() + 20000 * kMs;
    if (overFeed && !runUntil([&] { return feed.authenticatedCount() > 0; }, readyBy))
        fail("the plug-in did not connect to the feed");
    // Until the route is live an envelope may be dropped: send it again until it shows.
    bool ready = false;
    while (!ready && os_gettime_ns() < readyBy) {
        if (overFeed)
            feed.broadcast(scoreEnvelope(0));
        else if (route == "usb")
            usb.sendEnvelope(scoreEnvelope(0));
        ready = runUntil([&] { return showing("0 - 0"); }, os_gettime_ns() + 300 * kMs);
    }
    if (!ready)
        fail("the " + route + " route never showed its first score");

    QString chromiumVersion;
#if VANTORELLE_BENCH_BROWSER
    // The page, once it shows the same score, records what it shows from here on.
    std::unique_ptr<Browser> browser;
    QString page;
    if (route == "overlay") {
        browser = std::make_unique<Browser>();
        if (!browser->start(findChromium()))
            fail("chromium did not start");
        chromiumVersion = browser->call("Browser.getVersion")["result"]["product"].toString();
        page = browser->open(QString("http://127.0.0.1:%1/overlay?template={home_score}%20-%20"
                                     "{away_score}&font=Arial&size=64&color=%23ffffff"
                                     "&background=transparent")
                                 .arg(settings["browser_port"].toInt()));
        // The page loads after Target.createTarget has answered: ask until it shows the score.
        const auto shown = [&] {
            return browser->evaluate(page, "(document.getElementById('score') || {}).textContent")
                       .toString() == "0 - 0";
        };
        const uint64_t pageBy = os_gettime_ns() + 30000 * kMs;
        while (!page.isEmpty() && !shown() && os_gettime_ns() < pageBy)
            waitUntil(os_gettime_ns() + 50 * kMs);
        if (page.isEmpty() || !shown())
            fail("the overlay page never showed the first score");
        if (browser->evaluate(page, RecorderScript) != QJsonValue(true))
            fail("the recorder did not run in the page");
    }
#endif
    std::vector<double> sentEpochMs; // the overlay route's times of sending, on the page's clock

    std::vector<double> textMs, signalMs, frameMs;
    int missed = 0;
    const int n = route == "anchor" ? options.anchorN : options.n;
    uint64_t framesAtStart = 0, frameStartNs = 0;
    {
        std::lock_guard lock(s_frames.mutex);
        framesAtStart = s_frames.frames;
        frameStartNs = s_frames.lastFrameNs;
    }
    size_t changesSeen = 0, signalsSeen = 0;
    {
        std::lock_guard lock(s_frames.mutex);
        changesSeen = s_frames.widthChanges.size();
        signalsSeen = s_frames.updateSignals.size();
    }
    time_t lastWriteSecond = 0;
    for (int i = 0; i < n; ++i) {
        const QString expected = scoreText(i);
        uint64_t sentNs = 0;
        if (route == "anchor") {
            // The FreeType source compares the file's modification time in whole seconds: one
            // replacement per second at most, at a varying point of the source's once-a-second
            // look.
            const uint64_t jitter = uint64_t((i * 373) % 1000) * kMs;
            waitUntil(os_gettime_ns() + 100 * kMs + jitter);
            while (::time(nullptr) == lastWriteSecond)
                waitUntil(os_gettime_ns() + 20 * kMs);
            sentNs = os_gettime_ns();
            saveFileAtomically(textFile, expected.toUtf8());
            lastWriteSecond = ::time(nullptr);
        } else {
            const QJsonObject envelope = scoreEnvelope(expected.section(' ', 0, 0).toInt());
            sentNs = os_gettime_ns();
            if (route == "overlay")
                sentEpochMs.push_back(epochMs());
            if (overFeed)
                feed.broadcast(envelope);
            else
                usb.sendEnvelope(envelope);
        }
        uint64_t textNs = 0, signalNs = 0, frameNs = 0;
        const bool done = runUntil(
            [&] {
                if (inner && !textNs && textOf(inner) == expected)
                    textNs = os_gettime_ns();
                std::lock_guard lock(s_frames.mutex);
                // The first of each after the bytes went out.
                for (size_t k = signalsSeen; !signalNs && k < s_frames.updateSignals.size(); ++k)
                    signalNs = s_frames.updateSignals[k] >= sentNs ? s_frames.updateSignals[k] : 0;
                for (size_t k = changesSeen; !frameNs && k < s_frames.widthChanges.size(); ++k) {
                    const uint64_t at = s_frames.widthChanges[k].first;
                    frameNs = at >= sentNs ? at : 0;
                }
                return frameNs && (!inner || (textNs && signalNs));
            },
            sentNs + (route == "anchor" ? 4 * kStepTimeoutNs : kStepTimeoutNs));
        {
            std::lock_guard lock(s_frames.mutex);
            changesSeen = s_frames.widthChanges.size();
            signalsSeen = s_frames.updateSignals.size();
        }
        if (!done) {
            ++missed;
            continue;
        }
        frameMs.push_back(ms(sentNs, frameNs));
        if (inner) {
            textMs.push_back(ms(sentNs, textNs));
            signalMs.push_back(ms(sentNs, signalNs));
            waitUntil(sentNs + uint64_t(options.paceMs) * kMs);
        }
#if VANTORELLE_BENCH_BROWSER
        // Asked only once the pace is over, so that the page is left alone while it works. A
        // page that is behind is counted below as having missed this one.
        if (browser)
            browser->evaluate(page, QString("waitPainted(%1, 2000)").arg(i + 1));
#endif
    }
    // Each envelope's score as the page first showed it after the envelope went and before the
    // next one did.
    std::vector<double> pageTextMs, pageFrameMs;
    int pageMissed = 0;
    double pageIntervalMs = 0;
#if VANTORELLE_BENCH_BROWSER
    if (browser) {
        const QJsonArray seen =
            QJsonDocument::fromJson(
                browser->evaluate(page, "JSON.stringify(seen)").toString().toUtf8())
                .array();
        qsizetype next = 0;
        for (size_t i = 0; i < sentEpochMs.size(); ++i) {
            const double until = i + 1 < sentEpochMs.size() ? sentEpochMs[i + 1] : HUGE_VAL;
            const QString expected = scoreText(int(i));
            bool found = false;
            for (; next < seen.size() && seen[next][1].toDouble() < until && !found; ++next) {
                const QJsonArray entry = seen[next].toArray();
                if (entry[0].toString() != expected || entry[1].toDouble() < sentEpochMs[i] ||
                    entry.size() < 3)
                    continue;
                pageTextMs.push_back(entry[1].toDouble() - sentEpochMs[i]);
                pageFrameMs.push_back(entry[2].toDouble() - sentEpochMs[i]);
                found = true;
            }
            pageMissed += found ? 0 : 1;
        }
        // The page's own pace when it animates, for comparison with OBS's frame interval.
        pageIntervalMs =
            browser
                ->evaluate(page, "new Promise(function (resolve) { var times = [];"
                                 "  requestAnimationFrame(function tick(t) { times.push(t);"
                                 "    if (times.length < 61) return requestAnimationFrame(tick);"
                                 "    var gaps = times.slice(1).map(function (t, i) {"
                                 "      return t - times[i]; }).sort(function (a, b) {"
                                 "      return a - b; });"
                                 "    resolve(gaps[gaps.length >> 1]); }); })")
                .toDouble();
        browser.reset();
    }
#endif
    double intervalMs = 0;
    {
        std::lock_guard lock(s_frames.mutex);
        if (s_frames.frames > framesAtStart + 1)
            intervalMs =
                ms(frameStartNs, s_frames.lastFrameNs) / double(s_frames.frames - framesAtStart);
        s_frames.source = nullptr;
    }

    obs_remove_main_render_callback(onRender, nullptr);
    if (inner)
        signal_handler_disconnect(obs_source_get_signal_handler(inner), "update", onUpdateSignal,
                                  nullptr);
    obs_set_output_source(0, nullptr);
    obs_scene_release(scene);
    obs_source_release(measured);

    QJsonObject result{{"route", route},          {"n", n},
                       {"missed", missed},        {"interval_ms", intervalMs},
                       {"frame", stats(frameMs)}, {"obs_version", obs_get_version_string()}};
    if (route != "anchor") {
        result["text"] = stats(textMs);
        result["update_signal"] = stats(signalMs);
        result["pace_ms"] = options.paceMs;
    }
    if (route == "overlay") {
        result["page_text"] = stats(pageTextMs);
        result["page_frame"] = stats(pageFrameMs);
        result["page_missed"] = pageMissed;
        result["chromium"] = chromiumVersion;
        result["page_interval_ms"] = pageIntervalMs;
    }
    return result;
}

QString row(const QString& label, const QJsonObject& s)
{
    if (s["n"].toInt() == 0)
        return QString("  %1 no result").arg(label, -34);
    return QString("  %1 %2 %3 %4 %5 %6")
        .arg(label, -34)
        .arg(s["n"].toInt(), 4)
        .arg(s["min"].toDouble(), 8, 'f', 1)
        .arg(s["median"].toDouble(), 8, 'f', 1)
        .arg(s["p95"].toDouble(), 8, 'f', 1)
        .arg(s["max"].toDouble(), 8, 'f', 1);
}

// Runs each route in a child process and prints the figures.
int runAll(const Options& options)
{
    QJsonObject all;
    for (const char* route : {"lan", "usb", "overlay", "anchor"}) {
        if (route == QLatin1String("overlay")) {
#if VANTORELLE_BENCH_BROWSER
            const QString missing = findChromium().isEmpty()
                                        ? "chromium is not installed (Debian package chromium)"
                                        : QString();
#else
            const QString missing = "built without Qt WebSockets (qt6-websockets-dev)";
#endif
            if (!missing.isEmpty()) {
                all[route] = QJsonObject{{"skipped", missing}};
                continue;
            }
        }
        const QJsonObject result = runChild({"--route", route, QString::number(options.n),
                                             "--anchor-n", QString::number(options.anchorN),
                                             "--pace-ms", QString::number(options.paceMs)});
        all[route] = result.isEmpty() ? QJsonObject{{"error", "the run failed"}} : result;
    }
    const double anchorMedian = all["anchor"].toObject()["frame"].toObject()["median"].toDouble();
    for (const char* route : {"lan", "usb", "overlay"}) {
        QJsonObject r = all[route].toObject();
        // The overlay's frame is the one the page paints.
        const char* frame = route == QLatin1String("overlay") ? "page_frame" : "frame";
        const double median = r[frame].toObject()["median"].toDouble();
        if (median > 0 && anchorMedian > 0) {
            r["anchor_ratio"] = anchorMedian / median;
            all[route] = r;
        }
    }
    if (options.json) {
        std::printf("%s\n", QJsonDocument(all).toJson(QJsonDocument::Compact).constData());
        return 0;
    }
    const QJsonObject anchor = all["anchor"].toObject();
    std::printf("libobs %s, %u fps, one envelope every %d ms\n",
                qPrintable(all["lan"].toObject()["obs_version"].toString()), kFps, options.paceMs);
    std::printf("  %-34s %4s %8s %8s %8s %8s  (ms)\n", "", "n", "min", "median", "p95", "max");
    for (const char* route : {"lan", "usb"}) {
        const QJsonObject r = all[route].toObject();
        if (r.contains("error")) {
            std::printf("%s: the run failed\n", route);
            continue;
        }
        const double interval = r["interval_ms"].toDouble();
        const double max = r["frame"].toObject()["max"].toDouble();
        std::printf("%s (frame interval %.1f ms, %d missed)\n",
                    route == QLatin1String("lan") ? "network feed (TLS)" : "USB (pseudo-terminal)",
                    interval, r["missed"].toInt());
        std::printf("%s\n", qPrintable(row("(a) text source's text set", r["text"].toObject())));
        std::printf("%s\n", qPrintable(row("(a) text source's \"update\" signal",
                                           r["update_signal"].toObject())));
        std::printf("%s   goal max < %.1f ms: %s\n",
                    qPrintable(row("(b) first frame showing it", r["frame"].toObject())),
                    interval + 5,
                    max < interval + 5 && r["missed"].toInt() == 0 ? "met" : "MISSED");
    }
    const QJsonObject overlay = all["overlay"].toObject();
    if (overlay.contains("skipped")) {
        std::printf("HTTP overlay: not run (%s)\n", qPrintable(overlay["skipped"].toString()));
    } else if (overlay.contains("error")) {
        std::printf("HTTP overlay: the run failed\n");
    } else {
        // Measured against OBS's frame interval, as the browser source's frames go into OBS's.
        const double interval = overlay["interval_ms"].toDouble();
        const double max = overlay["page_frame"].toObject()["max"].toDouble();
        std::printf("HTTP overlay, network feed to headless %s (OBS frame interval %.1f ms, the "
                    "page's when animating %.1f ms, %d missed)\n",
                    qPrintable(overlay["chromium"].toString()), interval,
                    overlay["page_interval_ms"].toDouble(), overlay["page_missed"].toInt());
        std::printf("%s\n",
                    qPrintable(row("(a) page's text shown", overlay["page_text"].toObject())));
        std::printf(
            "%s   goal max < %.1f ms: %s\n",
            qPrintable(row("(b) first frame the page paints", overlay["page_frame"].toObject())),
            interval + 5,
            max < interval + 5 && overlay["page_missed"].toInt() == 0 ? "met" : "MISSED");
    }
    if (anchor.contains("error")) {
        std::printf("anchor: the run failed\n");
        return 1;
    }
    std::printf("anchor: FreeType source reading a file replaced per envelope (frame interval "
                "%.1f ms, %d missed)\n",
                anchor["interval_ms"].toDouble(), anchor["missed"].toInt());
    std::printf("%s   anchor/plug-in median: network %.0fx, USB %.0fx, overlay %.0fx\n",
                qPrintable(row("(b) first frame showing it", anchor["frame"].toObject())),
                all["lan"].toObject()["anchor_ratio"].toDouble(),
                all["usb"].toObject()["anchor_ratio"].toDouble(),
                overlay["anchor_ratio"].toDouble());
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
        else if (arg == "--route" && hasValue)
            options.route = QString::fromLatin1(argv[++i]);
        else if (arg == "--anchor-n" && hasValue)
            options.anchorN = std::max(1, atoi(argv[++i]));
        else if (arg == "--pace-ms" && hasValue)
            options.paceMs = std::max(1, atoi(argv[++i]));
        else if (arg.toInt() > 0)
            options.n = arg.toInt();
        else {
            std::fprintf(stderr,
                         "usage: bench_live_path_obs [N] [--json] [--anchor-n M] [--pace-ms P]\n");
            return 2;
        }
    }
    if (options.route.isEmpty()) {
        QCoreApplication app(argc, argv);
        return runAll(options);
    }
    // The plug-in runs in OBS's Qt application, as in OBS itself.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    report(runRoute(options));
    obs_shutdown();
    return 0;
}
