// vantorelle-sim: plays a Vantorelle device on a pseudo-terminal, for trying the plug-in (or any
// program that speaks the USB protocol) without hardware. Prints the port path, then plays a
// game until SIGINT or SIGTERM.

#include "sim/admin_responder.h"
#include "sim/game.h"
#include "sim/usb_device.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

// Only async-signal-safe work here: the event loop picks the byte up and quits.
void onSignal(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

bool quitOnSignals(QCoreApplication& app)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return false;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&app] {
        char byte = 0;
        [[maybe_unused]] const ssize_t got = ::read(signalPipe[0], &byte, 1);
        app.quit();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vantorelle-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Plays a Vantorelle device on a pseudo-terminal and prints the port path to open."));
    parser.addHelpOption();
    const QCommandLineOption interval(
        QStringLiteral("interval"),
        QStringLiteral("Milliseconds between live envelopes (one game second each)."),
        QStringLiteral("MS"), QStringLiteral("1000"));
    const QCommandLineOption receiver(
        QStringLiteral("receiver"),
        QStringLiteral("Play a wireless receiver instead of a device."));
    const QCommandLineOption password(
        QStringLiteral("password"), QStringLiteral("Admin password for sign-in (default: admin)."),
        QStringLiteral("PW"));
    const QCommandLineOption silent(
        QStringLiteral("silent"),
        QStringLiteral("Never answer hello, as a port that is not a device."));
    const QCommandLineOption sport(QStringLiteral("sport"),
                                   QStringLiteral("hockey (default) or basketball."),
                                   QStringLiteral("NAME"), QStringLiteral("hockey"));
    parser.addOptions({interval, receiver, password, silent, sport});
    parser.process(app);

    QTextStream err(stderr);
    bool intervalOk = false;
    const int intervalMs = parser.value(interval).toInt(&intervalOk);
    if (!intervalOk || intervalMs <= 0) {
        err << "vantorelle-sim: --interval takes a positive number of milliseconds\n";
        return 2;
    }
    const QString sportName = parser.value(sport);
    if (sportName != QLatin1String("hockey") && sportName != QLatin1String("basketball")) {
        err << "vantorelle-sim: --sport takes hockey or basketball\n";
        return 2;
    }
    if (!quitOnSignals(app)) {
        err << "vantorelle-sim: could not install the signal handlers\n";
        return 1;
    }

    vantorelle::sim::UsbDevice device;
    device.setRole(parser.isSet(receiver) ? vantorelle::sim::UsbDevice::Role::Receiver
                                          : vantorelle::sim::UsbDevice::Role::Device);
    device.setAnswersHello(!parser.isSet(silent));
    if (parser.isSet(password))
        device.setPassword(parser.value(password));
    device.game()->setSport(sportName == QLatin1String("basketball")
                                ? vantorelle::sim::Game::Sport::Basketball
                                : vantorelle::sim::Game::Sport::Hockey);
    if (!device.start()) {
        err << "vantorelle-sim: could not open a pseudo-terminal\n";
        return 1;
    }
    device.startGame(intervalMs);

    QTextStream out(stdout);
    out << device.portPath() << Qt::endl;

    const int status = app.exec();
    device.unplug();
    return status;
}
