#include "common/quit_on_signals.h"

#include <QCoreApplication>

#ifdef Q_OS_WIN

#include <QMetaObject>

#include <windows.h>

#else

#include <QSocketNotifier>

#include <csignal>

#include <sys/socket.h>
#include <unistd.h>

#endif

namespace vantorelle::tools {

namespace {

#ifdef Q_OS_WIN

QCoreApplication* s_app = nullptr;

// Windows calls this on a thread of its own: the quit is queued to the event loop. Returning
// TRUE keeps the process alive until the loop has ended.
BOOL WINAPI onConsoleEvent(DWORD event)
{
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        return FALSE;
    QMetaObject::invokeMethod(s_app, &QCoreApplication::quit, Qt::QueuedConnection);
    return TRUE;
}

#else

int signalPipe[2] = {-1, -1};

// Only async-signal-safe work here: the event loop picks the byte up and quits.
void onSignal(int signal)
{
    const char byte = char(signal);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

#endif

} // namespace

#ifdef Q_OS_WIN

bool quitOnSignals(QCoreApplication& app)
{
    s_app = &app;
    return SetConsoleCtrlHandler(onConsoleEvent, TRUE) != 0;
}

#else

bool quitOnSignals(QCoreApplication& app)
{
    if (signalPipe[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
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

#endif

} // namespace vantorelle::tools
