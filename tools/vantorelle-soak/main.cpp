// vantorelle-soak: a long run of the live path against simulated devices, as a streamer leaves
// OBS running for a whole tournament day. Two `vantorelle-bridge watch` processes follow a
// simulated device each, one on a pseudo-terminal and one on the local network (TLS feed), and
// share the live data; many clients of each sharing server check that every change reaches them
// in order, while one client that never reads must be dropped without harming the others. The
// bridges' resident memory is sampled after a warm-up and at the end. Prints one line per route
// and a verdict; exits 0 when the run passed, 1 when it failed, 2 on bad usage.

#include "common/quit_on_signals.h"
#include "route.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTextStream>
#include <QTimer>

#include <array>
#include <optional>

using namespace vantorelle;

namespace {

// How long a bridge may take to announce its sharing port.
constexpr int kStartupMs = 30'000;
// How long the clients get, once the games stop, to receive the last change.
constexpr int kDrainMs = 10'000;
constexpr int kForgetEveryMs = 10'000;
// Warm-up: a tenth of the run, at most two minutes.
constexpr double kWarmUpShare = 0.1;
constexpr int kMaxWarmUpMs = 120'000;
// Runs at least this long judge memory growth by default; shorter ones are too noisy.
constexpr double kJudgedMinutes = 30;
constexpr double kDefaultMaxGrowthMbPerHour = 1;

struct Options
{
    QCommandLineOption minutes{QStringLiteral("minutes"),
                               QStringLiteral("Length of the run in minutes (fractions allowed)."),
                               QStringLiteral("N")};
    QCommandLineOption interval{QStringLiteral("interval-ms"),
                                QStringLiteral("Milliseconds between game ticks (default 100)."),
                                QStringLiteral("MS"), QStringLiteral("100")};
    QCommandLineOption clients{
        QStringLiteral("clients"),
        QStringLiteral("Reading clients of each bridge's sharing server (default 50)."),
        QStringLiteral("N"), QStringLiteral("50")};
    QCommandLineOption warmUp{
        QStringLiteral("warm-up-seconds"),
        QStringLiteral("When the starting memory is read (default: a tenth of the run, at "
                       "most 120)."),
        QStringLiteral("S")};
    QCommandLineOption maxGrowth{
        QStringLiteral("max-growth-mb-per-hour"),
        QStringLiteral("Memory growth of a bridge, in MiB per hour, that fails the run (default: "
                       "1 for runs of 30 minutes or more; shorter runs only report it)."),
        QStringLiteral("MB")};
    QCommandLineOption bridge{
        QStringLiteral("bridge"),
        QStringLiteral("The vantorelle-bridge program (default: the one beside this program)."),
        QStringLiteral("PATH")};

    QList<QCommandLineOption> all() const
    {
        return {minutes, interval, clients, warmUp, maxGrowth, bridge};
    }
};

struct Settings
{
    double minutes = 0;
    int intervalMs = 100;
    int clients = 50;
    int warmUpMs = 0;
    std::optional<double> maxGrowthMbPerHour;
    QString bridgePath;
};

std::optional<Settings> readSettings(const QCommandLineParser& parser, const Options& options,
                                     QTextStream& err)
{
    const auto bad = [&](const char* what) {
        err << "vantorelle-soak: " << what << '\n';
        return std::nullopt;
    };
    Settings settings;
    bool ok = false;
    settings.minutes = parser.value(options.minutes).toDouble(&ok);
    if (!ok || settings.minutes <= 0 || settings.minutes > 7 * 24 * 60)
        return bad("--minutes takes a positive number of minutes (at most a week)");
    settings.intervalMs = parser.value(options.interval).toInt(&ok);
    if (!ok || settings.intervalMs < 1 || settings.intervalMs > 60'000)
        return bad("--interval-ms takes 1 to 60000 milliseconds");
    settings.clients = parser.value(options.clients).toInt(&ok);
    if (!ok || settings.clients < 1 || settings.clients > 1000)
        return bad("--clients takes 1 to 1000 clients");
    const qint64 runMs = qint64(settings.minutes * 60'000);
    if (parser.isSet(options.warmUp)) {
        const double seconds = parser.value(options.warmUp).toDouble(&ok);
        if (!ok || seconds < 0 || seconds * 1000 >= double(runMs))
            return bad("--warm-up-seconds takes a number of seconds shorter than the run");
        settings.warmUpMs = int(seconds * 1000);
    } else {
        settings.warmUpMs =
            int(std::min<qint64>(qint64(double(runMs) * kWarmUpShare), kMaxWarmUpMs));
    }
    if (parser.isSet(options.maxGrowth)) {
        settings.maxGrowthMbPerHour = parser.value(options.maxGrowth).toDouble(&ok);
        if (!ok || *settings.maxGrowthMbPerHour < 0)
            return bad("--max-growth-mb-per-hour takes a number of MiB per hour");
    } else if (settings.minutes >= kJudgedMinutes) {
        settings.maxGrowthMbPerHour = kDefaultMaxGrowthMbPerHour;
    }
    settings.bridgePath = parser.isSet(options.bridge) ? parser.value(options.bridge)
                                                       : QCoreApplication::applicationDirPath() +
                                                             QStringLiteral("/vantorelle-bridge");
    return settings;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vantorelle-soak"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Runs two vantorelle-bridge watch processes against simulated devices (USB on a "
        "pseudo-terminal, and the network feed) for --minutes, with many sharing-server clients "
        "that check every change arrives in order and one that never reads. Prints one line per "
        "route and a verdict; exits 1 when a client missed a change or got one out of order, a "
        "bridge died, the slow client was not dropped or memory grew past the limit."));
    parser.addHelpOption();
    const Options options;
    parser.addOptions(options.all());
    parser.process(app);

    QTextStream out(stdout);
    QTextStream err(stderr);
    if (!parser.isSet(options.minutes)) {
        err << "vantorelle-soak: --minutes is needed\n";
        return 2;
    }
    const std::optional<Settings> settings = readSettings(parser, options, err);
    if (!settings)
        return 2;
    if (!tools::quitOnSignals(app)) {
        err << "vantorelle-soak: could not install the signal handlers\n";
        return 1;
    }

    QElapsedTimer clock;
    clock.start();
    soak::Route usb(
        {soak::Route::Kind::Usb, settings->bridgePath, settings->intervalMs, settings->clients},
        &clock);
    soak::Route lan(
        {soak::Route::Kind::Lan, settings->bridgePath, settings->intervalMs, settings->clients},
        &clock);
    const std::array<soak::Route*, 2> routes{&usb, &lan};
    for (soak::Route* route : routes) {
        QString error;
        if (!route->start(&error)) {
            err << "vantorelle-soak: " << route->name() << ": " << error << '\n';
            return 1;
        }
        QObject::connect(route, &soak::Route::bridgeDied, &app, &QCoreApplication::quit);
    }
    err << "vantorelle-soak: " << settings->minutes << " min, a tick every " << settings->intervalMs
        << " ms, " << settings->clients
        << " reading clients and one slow client per bridge, memory read after "
        << settings->warmUpMs / 1000.0 << " s" << Qt::endl;

    const qint64 runMs = qint64(settings->minutes * 60'000);
    bool ranToTheEnd = false;
    bool warmedUp = false;
    QTimer::singleShot(std::chrono::milliseconds(runMs), &app, [&] {
        ranToTheEnd = true;
        app.quit();
    });
    QTimer::singleShot(settings->warmUpMs, &app, [&] {
        warmedUp = true;
        for (soak::Route* route : routes)
            route->sampleStartRss();
    });
    QTimer::singleShot(kStartupMs, &app, [&] {
        for (soak::Route* route : routes) {
            if (!route->isSharing())
                app.quit();
        }
    });
    QTimer forget;
    QObject::connect(&forget, &QTimer::timeout, &app, [&] {
        for (soak::Route* route : routes)
            route->forgetOldChanges();
    });
    forget.start(kForgetEveryMs);
    app.exec();

    // The end: memory first, then the last changes are given time to arrive.
    for (soak::Route* route : routes) {
        if (!warmedUp)
            route->sampleStartRss();
        route->sampleEndRss();
        route->stopGame();
    }
    const QDeadlineTimer drain(kDrainMs);
    while (!drain.hasExpired() &&
           !std::all_of(routes.begin(), routes.end(), [](auto* r) { return r->clientsDone(); }))
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    for (soak::Route* route : routes)
        route->finish();

    QStringList failures;
    for (soak::Route* route : routes)
        out << route->report(settings->maxGrowthMbPerHour, &failures) << '\n';
    const QString ran = QStringLiteral("%1 min").arg(double(clock.elapsed()) / 60'000.0, 0, 'f', 1);
    if (!ranToTheEnd)
        failures.prepend(QStringLiteral("the run ended early after ") + ran);
    if (failures.isEmpty())
        out << "soak passed after " << ran << Qt::endl;
    else
        out << "soak FAILED: " << failures.join(QStringLiteral("; ")) << Qt::endl;
    return failures.isEmpty() ? 0 : 1;
}
