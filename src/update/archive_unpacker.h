#pragma once

#include "archive_listing.h"

#include <QObject>
#include <QStringList>
#include <QTimer>

#include <functional>

class QProcess;

namespace vantorelle {

// Runs the system's archive tool: first it lists the archive twice ("-t", then "-t -v"), and only
// when `checkArchiveListing` accepts that does it unpack ("-xf <archive> -C <folder>"), all under
// one time-out.
class ArchiveUnpacker : public QObject
{
    Q_OBJECT

public:
    enum class Outcome
    {
        Unpacked,
        CannotStart,
        Failed,
        Refused // the listing was refused, for the reason given
    };
    using Completion = std::function<void(Outcome outcome, const QString& refusal)>;

    // Listing output read from the tool, each time; an archive needing more is refused as too
    // large (at the entry limit that still leaves about 800 bytes a name).
    static constexpr qint64 MaxListingBytes = 8 * 1024 * 1024;

    explicit ArchiveUnpacker(QObject* parent = nullptr);
    ~ArchiveUnpacker() override;

    // `done` is called once: Unpacked only after a normal exit with code 0; a tool still
    // running after `timeoutMs` is killed and counts as Failed.
    void start(const QString& tool, const QString& archive, const QString& folder, int timeoutMs,
               const ArchiveLimits& limits, Completion done);
    // Kills the tool and waits until it is gone; `done` is not called.
    void stop();

private:
    enum class Step
    {
        Names,
        Details,
        Extract
    };

    void run(Step step);
    void readListing();
    void finishStep(int exitCode, bool clean);
    void complete(Outcome outcome, const QString& refusal = {});

    QString m_tool;
    QString m_archive;
    QString m_folder;
    ArchiveLimits m_limits;
    QProcess* m_process = nullptr; // the current step's
    Step m_step = Step::Names;
    QByteArray m_listing;
    QByteArray m_names;
    bool m_overflow = false;
    QTimer m_deadline;
    Completion m_done;
};

} // namespace vantorelle
