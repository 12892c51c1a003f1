#include "archive_unpacker.h"

#include <QDir>

namespace vantorelle {

ArchiveUnpacker::ArchiveUnpacker(QObject* parent) : QObject(parent)
{
    m_deadline.setSingleShot(true);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    m_process.setStandardErrorFile(QProcess::nullDevice());
    connect(&m_deadline, &QTimer::timeout, &m_process, &QProcess::kill);
    connect(&m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            complete(Outcome::CannotStart);
    });
    connect(&m_process, &QProcess::finished, this,
            [this](int exitCode, QProcess::ExitStatus status) {
                const bool clean = status == QProcess::NormalExit && exitCode == 0;
                complete(clean ? Outcome::Unpacked : Outcome::Failed);
            });
}

ArchiveUnpacker::~ArchiveUnpacker()
{
    m_done = {};
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(1000);
    }
}

void ArchiveUnpacker::start(const QString& tool, const QString& archive, const QString& folder,
                            int timeoutMs, Completion done)
{
    m_done = std::move(done);
    m_deadline.start(timeoutMs);
    m_process.start(tool, {QStringLiteral("-xf"), QDir::toNativeSeparators(archive),
                           QStringLiteral("-C"), QDir::toNativeSeparators(folder)});
}

void ArchiveUnpacker::complete(Outcome outcome)
{
    m_deadline.stop();
    if (m_done)
        std::exchange(m_done, {})(outcome);
}

} // namespace vantorelle
