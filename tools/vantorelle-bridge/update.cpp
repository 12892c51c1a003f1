#include "update.h"

#include "address_override.h"
#include "console.h"

#include <QDir>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <csignal>
#endif

namespace vantorelle::bridge {

namespace {

// Development builds can be told to die at a given step of the swap, so that a test can check
// what the next start makes of every half-done state.
std::function<void()> stepKiller()
{
    bool ok = false;
    const int stopAt = addressOverride("VANTORELLE_KILL_AT_SWAP_STEP").toInt(&ok);
    if (!ok || stopAt < 1)
        return {};
    return [stopAt, steps = 0]() mutable {
        if (++steps == stopAt) {
#ifdef Q_OS_WIN
            TerminateProcess(GetCurrentProcess(), 9); // as hard as SIGKILL: nothing runs after it
#else
            std::raise(SIGKILL);
#endif
        }
    };
}

} // namespace

Update::Update(const UpdateCommand& command, QObject* parent)
    : QObject(parent), m_installFolder(QDir::cleanPath(command.installFolder))
{
    UpdaterConfig config = m_updater.config();
    if (!command.manifestUrl.isEmpty())
        config.manifestUrl = command.manifestUrl;
    const QByteArray testKey = developmentUpdateKey(); // as the plug-in does
    if (!testKey.isEmpty())
        config.publicKeys.append(testKey);
    config.installFolder = m_installFolder;
    config.stagingFolder = command.stagingFolder.isEmpty()
                               ? m_installFolder + QStringLiteral(".update")
                               : command.stagingFolder;
    config.fileByFile = command.fileByFile;
    config.afterSwapStep = stepKiller();
    m_updater.setConfig(config);
    connect(&m_updater, &PluginUpdater::stateChanged, this, &Update::follow);
}

void Update::start()
{
    PluginUpdater::tidyInstallFolder(m_installFolder);
    m_updater.check(true);
}

void Update::follow()
{
    const QString text = m_updater.statusText();
    if (!text.isEmpty() && text != m_lastText)
        writeOut(text.toLocal8Bit() + '\n');
    m_lastText = text;
    switch (m_updater.state()) {
    case PluginUpdater::Available:
        m_updater.install();
        break;
    case PluginUpdater::UpToDate:
    case PluginUpdater::Installed:
        Q_EMIT finished(0);
        break;
    case PluginUpdater::Failed:
    case PluginUpdater::Idle:
        Q_EMIT finished(1);
        break;
    default:
        break;
    }
}

} // namespace vantorelle::bridge
