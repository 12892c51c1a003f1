#include "archive_unpacker.h"

#include <QDir>
#include <QProcess>

namespace vantorelle {

ArchiveUnpacker::ArchiveUnpacker(QObject* parent) : QObject(parent)
{
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] {
        if (m_process)
            m_process->kill();
    });
}

ArchiveUnpacker::~ArchiveUnpacker()
{
    stop();
}

void ArchiveUnpacker::start(const QString& tool, const QString& archive, const QString& folder,
                            int timeoutMs, const ArchiveLimits& limits, Completion done)
{
    m_tool = tool;
    m_archive = QDir::toNativeSeparators(archive);
    m_folder = QDir::toNativeSeparators(folder);
    m_limits = limits;
    m_done = std::move(done);
    m_deadline.start(timeoutMs);
    run(Step::Names);
}

void ArchiveUnpacker::stop()
{
    m_done = {};
    m_deadline.stop();
    if (!m_process)
        return;
    m_process->disconnect(this);
    if (m_process->state() != QProcess::NotRunning) {
        m_process->kill();
        m_process->waitForFinished(1000);
    }
}

void ArchiveUnpacker::run(Step step)
{
    m_step = step;
    m_listing.clear();
    m_overflow = false;
    // Each step gets its own process: the last one may still be inside its own signal.
    if (m_process) {
        m_process->disconnect(this);
        m_process->deleteLater();
    }
    m_process = new QProcess(this);
    m_process->setStandardErrorFile(QProcess::nullDevice());
    if (step == Step::Extract)
        m_process->setStandardOutputFile(QProcess::nullDevice());
    else
        connect(m_process, &QProcess::readyReadStandardOutput, this, &ArchiveUnpacker::readListing);
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            complete(Outcome::CannotStart);
    });
    connect(m_process, &QProcess::finished, this,
            [this](int exitCode, QProcess::ExitStatus status) {
                finishStep(exitCode, status == QProcess::NormalExit);
            });
    switch (step) {
    case Step::Names:
        m_process->start(m_tool, {QStringLiteral("-tf"), m_archive});
        break;
    case Step::Details:
        // Numbers for owner and group: names could hold spaces and line breaks.
        m_process->start(m_tool, {QStringLiteral("-tv"), QStringLiteral("--numeric-owner"),
                                  QStringLiteral("-f"), m_archive});
        break;
    case Step::Extract:
        m_process->start(m_tool,
                         {QStringLiteral("-xf"), m_archive, QStringLiteral("-C"), m_folder});
        break;
    }
}

void ArchiveUnpacker::readListing()
{
    if (m_overflow)
        return;
    m_listing += m_process->readAllStandardOutput();
    if (m_listing.size() > MaxListingBytes) {
        m_overflow = true;
        m_listing.clear();
        m_process->kill();
    }
}

void ArchiveUnpacker::finishStep(int exitCode, bool clean)
{
    if (m_step != Step::Extract)
        readListing();
    if (m_overflow) {
        complete(Outcome::Refused, tooLargeToUnpackText());
        return;
    }
    if (!clean || exitCode != 0) {
        complete(Outcome::Failed);
        return;
    }
    switch (m_step) {
    case Step::Names:
        m_names = std::exchange(m_listing, {});
        run(Step::Details);
        return;
    case Step::Details:
        if (const ListingCheck check = checkArchiveListing(m_names, m_listing, m_limits);
            !check.ok) {
            complete(Outcome::Refused, check.failureText);
            return;
        }
        run(Step::Extract);
        return;
    case Step::Extract:
        complete(Outcome::Unpacked);
        return;
    }
}

void ArchiveUnpacker::complete(Outcome outcome, const QString& refusal)
{
    m_deadline.stop();
    if (m_done)
        std::exchange(m_done, {})(outcome, refusal);
}

} // namespace vantorelle
