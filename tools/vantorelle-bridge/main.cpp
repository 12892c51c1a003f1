// vantorelle-bridge: Vantorelle devices from the command line. Lists serial ports, follows one
// device's live data (printing it and sharing it with other programs), sends single admin
// requests, updates the plug-in and manages the portal sign-in. See usageText() for every command
// and option.

#include "command_line.h"
#include "console.h"
#include "device_call.h"
#include "portal_account.h"
#include "update.h"
#include "watch.h"

#include "common/quit_on_signals.h"
#include "serial_port.h"

#include <QCoreApplication>
#include <QTimer>

#include <functional>

namespace {

using namespace vantorelle::bridge;

int listPorts()
{
    for (const vantorelle::UsbPortInfo& port : vantorelle::listSerialPorts()) {
        QString line = port.port + QLatin1Char('\t') + port.description;
        if (port.likely)
            line += QStringLiteral("\tlikely");
        writeOut(line.toLocal8Bit() + '\n');
    }
    return 0;
}

// Runs the event loop until the command is done or a signal arrives. `begin` starts the command
// once the loop runs, so that an outcome reported at once still ends the loop.
int runLoop(QCoreApplication& app, const std::function<void()>& begin)
{
    if (!vantorelle::tools::quitOnSignals(app)) {
        printError(QStringLiteral("vantorelle-bridge: could not install the signal handlers"));
        return 1;
    }
    QTimer::singleShot(0, &app, begin);
    return app.exec();
}

int runWatch(QCoreApplication& app, const CommandLine& line)
{
    const QString session = line.sessionFile.isEmpty() ? defaultSessionFile() : line.sessionFile;
    Watch watch(line.watch, portalUrl(), session);
    QObject::connect(&watch, &Watch::failed, &app, [&app] { app.exit(1); });
    return runLoop(app, [&] {
        if (!watch.start())
            app.exit(1);
    });
}

int runCall(QCoreApplication& app, const CommandLine& line)
{
    DeviceCall call(line.call);
    QObject::connect(&call, &DeviceCall::finished, &app, [&app](int code) { app.exit(code); });
    return runLoop(app, [&call] { call.start(); });
}

int runUpdate(QCoreApplication& app, const CommandLine& line)
{
    Update update(line.update);
    QObject::connect(&update, &Update::finished, &app, [&app](int code) { app.exit(code); });
    return runLoop(app, [&update] { update.start(); });
}

int runAccount(QCoreApplication& app, const CommandLine& line)
{
    const QString session = line.sessionFile.isEmpty() ? defaultSessionFile() : line.sessionFile;
    PortalAccount account(portalUrl(), session);
    QObject::connect(&account, &PortalAccount::finished, &app,
                     [&app](int code) { app.exit(code); });
    const bool signingIn = line.command == QLatin1String("signin");
    return runLoop(app, [&] {
        if (signingIn)
            account.signInAs(line.email);
        else
            account.signOutAndForget();
    });
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    // The session file lives in the configuration folder named after the application.
    QCoreApplication::setApplicationName(QStringLiteral("vantorelle"));

    QString problem;
    const auto line = parseCommandLine(app.arguments().mid(1), &problem);
    if (!line) {
        printError(QStringLiteral("vantorelle-bridge: %1\n").arg(problem));
        printError(usageText());
        return 2;
    }
    if (line->command == QLatin1String("help")) {
        writeOut(usageText().toLocal8Bit());
        return 0;
    }
    if (line->command == QLatin1String("ports"))
        return listPorts();
    if (line->command == QLatin1String("watch"))
        return runWatch(app, *line);
    if (line->command == QLatin1String("call"))
        return runCall(app, *line);
    if (line->command == QLatin1String("update"))
        return runUpdate(app, *line);
    return runAccount(app, *line);
}
