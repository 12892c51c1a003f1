#include "tree_swap.h"

#include "file_moves.h"
#include "swap_journal.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace vantorelle {

namespace {

constexpr QDir::Filters AllFiles = QDir::Files | QDir::Hidden | QDir::System;
constexpr QDir::Filters AllFolders = QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot;

QString asideName(const QString& path)
{
    return path + QStringLiteral(".old");
}

QString copyName(const QString& path)
{
    return path + QStringLiteral(".new");
}

// Relative paths below `folder`, sorted, so that a folder comes before what it holds.
QStringList relativePathsBelow(const QString& folder, QDir::Filters filters)
{
    const QDir base(folder);
    QStringList paths;
    QDirIterator it(folder, filters, QDirIterator::Subdirectories);
    while (it.hasNext())
        paths.append(base.relativeFilePath(it.next()));
    paths.sort();
    return paths;
}

bool exists(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

QByteArray fileDigest(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return {};
    return hash.result().toHex();
}

bool holdsBusyFile(const QString& folder, const PathPredicate& busy)
{
    if (!busy)
        return false;
    const QDir base(folder);
    const QStringList files = relativePathsBelow(folder, AllFiles);
    return std::any_of(files.cbegin(), files.cend(),
                       [&](const QString& file) { return busy(base.filePath(file)); });
}

SwapResult failure(const QString& reason, bool restored = true)
{
    return {false, false, restored, reason};
}

// Undoes a swap file by file, newest step first; true when the folder is as it was.
bool rollBack(const SwapPlan& plan, const QDir& target, const PathPredicate& writable)
{
    bool whole = true;
    const auto canWrite = [&](const QString& path) {
        return !writable || writable(QFileInfo(path).absolutePath());
    };
    for (qsizetype i = std::min<qsizetype>(plan.done, plan.entries.size() - 1); i >= 0; --i) {
        const SwapPlan::Entry& entry = plan.entries.at(i);
        const QString path = target.filePath(entry.path);
        const QString aside = asideName(path);
        if (exists(copyName(path)))
            QFile::remove(copyName(path));
        if (entry.replaces) {
            if (!exists(aside))
                continue; // not reached yet: the current file is still in place
            // Two names of one file: moving one onto the other leaves both, so drop the alias.
            whole = whole && canWrite(path) && replaceFile(aside, path) &&
                    (!exists(aside) || QFile::remove(aside));
        } else if (exists(path)) {
            whole = whole && canWrite(path) && QFile::remove(path);
        }
    }
    for (auto it = plan.createdFolders.crbegin(); it != plan.createdFolders.crend(); ++it) {
        if (QFileInfo(target.filePath(*it)).isDir())
            whole = whole && target.rmdir(*it);
    }
    return whole;
}

// Whether every file of the plan already is its new self.
bool isComplete(const SwapPlan& plan, const QDir& target)
{
    return std::all_of(plan.entries.cbegin(), plan.entries.cend(), [&](const auto& entry) {
        const QString path = target.filePath(entry.path);
        return entry.sha256.isEmpty() ? !exists(path) : fileDigest(path) == entry.sha256;
    });
}

class Swap
{
public:
    Swap(const QString& source, const QString& target, const QString& backup,
         const SwapOptions& options)
        : m_source(source), m_target(target), m_backup(backup), m_options(options),
          m_journal(swapJournalPath(target))
    {}

    // Replaces the whole folder; false (with everything as it was) when it cannot.
    bool wholeFolder(SwapResult* result)
    {
        if (m_options.fileByFile || !QFileInfo(m_source.path()).isDir() ||
            !QFileInfo(m_target.path()).isDir() ||
            holdsBusyFile(m_source.path(), m_options.isBusy) ||
            holdsBusyFile(m_target.path(), m_options.isBusy))
            return false;
        if (!QDir(m_backup).removeRecursively() ||
            !QDir().mkpath(QFileInfo(m_backup).absolutePath()))
            return false;
        // One step where the system allows it: the folder OBS loads is never missing.
        if (exchangeFolders(m_source.path(), m_target.path())) {
            step();
            if (QDir().rename(m_source.path(), m_backup))
                step();
            *result = {true, true, true, {}};
            return true;
        }
        SwapPlan plan;
        plan.way = SwapPlan::Way::Folder;
        plan.backup = m_backup;
        if (!journal(plan))
            return false;
        if (!move(m_target.path(), m_backup)) {
            dropJournal();
            return false;
        }
        if (move(m_source.path(), m_target.path())) {
            dropJournal();
            *result = {true, true, true, {}};
            return true;
        }
        if (!move(m_backup, m_target.path())) {
            *result = failure(QStringLiteral("the current files were left in %1")
                                  .arg(QDir::toNativeSeparators(m_backup)),
                              false);
            return true;
        }
        dropJournal();
        return false;
    }

    SwapResult fileByFile()
    {
        if (!QFileInfo(m_source.path()).isDir())
            return failure(QStringLiteral("nothing to install"));
        QString reason;
        SwapPlan plan = planFiles(&reason);
        if (!reason.isEmpty())
            return failure(reason);
        // Leftovers of an earlier update make way first, so that every "<name>.old" found
        // later is one this swap made.
        for (const SwapPlan::Entry& entry : std::as_const(plan.entries)) {
            const QString aside = asideName(m_target.filePath(entry.path));
            if (exists(aside) && (busy(aside) || !QFile::remove(aside)))
                return failure(inUse(entry.path));
        }
        const QString journalFailure =
            QStringLiteral("could not write %1").arg(QDir::toNativeSeparators(m_journal));
        if (!journal(plan))
            return failure(journalFailure);
        for (const QString& folder : std::as_const(plan.createdFolders)) {
            if (!canWrite(m_target.filePath(folder)) || !m_target.mkdir(folder)) {
                reason = QStringLiteral("could not write %1").arg(shown(folder));
                break;
            }
            step();
        }
        while (reason.isEmpty() && plan.done < plan.entries.size()) {
            reason = replace(plan.entries.at(plan.done));
            // The journal must never say less was done than was: the undo stops there.
            if (reason.isEmpty() && ++plan.done < plan.entries.size() && !journal(plan))
                reason = journalFailure;
        }
        if (reason.isEmpty()) {
            dropJournal(); // the swap is complete from here on
            return {true, false, true, {}};
        }
        if (!rollBack(plan, m_target, m_options.isWritable))
            return failure(reason, false);
        dropJournal();
        return failure(reason);
    }

private:
    void step() const
    {
        if (m_options.afterStep)
            m_options.afterStep();
    }
    bool journal(const SwapPlan& plan) const
    {
        if (!writeJournal(m_journal, plan))
            return false;
        step();
        return true;
    }
    void dropJournal() const
    {
        if (QFile::remove(m_journal))
            step();
    }
    bool move(const QString& from, const QString& to) const
    {
        if (!QDir().rename(from, to))
            return false;
        step();
        return true;
    }
    bool busy(const QString& path) const { return m_options.isBusy && m_options.isBusy(path); }
    bool canWrite(const QString& path) const
    {
        return !m_options.isWritable || m_options.isWritable(QFileInfo(path).absolutePath());
    }
    static QString shown(const QString& relative) { return QDir::toNativeSeparators(relative); }
    static QString inUse(const QString& relative)
    {
        return QStringLiteral("%1 is in use").arg(shown(relative));
    }

    // Every file of the new tree (the module last: the next start loads it first, so it changes
    // only when everything else has), then every current file the new tree does not have.
    SwapPlan planFiles(QString* problem) const
    {
        SwapPlan plan;
        const QStringList incoming = relativePathsBelow(m_source.path(), AllFiles);
        if (incoming.isEmpty()) {
            *problem = QStringLiteral("the package is empty");
            return plan;
        }
        QStringList ordered = incoming;
        if (ordered.removeOne(m_options.moduleRelativePath))
            ordered.append(m_options.moduleRelativePath);
        for (const QString& file : std::as_const(ordered)) {
            const QByteArray digest = fileDigest(m_source.filePath(file));
            if (digest.isEmpty()) {
                *problem = QStringLiteral("could not read %1").arg(shown(file));
                return plan;
            }
            plan.entries.append({file, digest, exists(m_target.filePath(file))});
        }
        for (const QString& file : relativePathsBelow(m_target.path(), AllFiles)) {
            if (!incoming.contains(file) && !file.endsWith(QLatin1String(".old")))
                plan.entries.insert(plan.entries.size() - 1, {file, {}, true});
        }
        for (const QString& folder : relativePathsBelow(m_source.path(), AllFolders)) {
            if (!QFileInfo(m_target.filePath(folder)).isDir())
                plan.createdFolders.append(folder);
        }
        return plan;
    }

    // One file: the current one keeps a second name "<name>.old", then the new one takes its
    // place in one move (a copy first goes under "<name>.new" when it cannot be moved).
    QString replace(const SwapPlan::Entry& entry) const
    {
        const QString path = m_target.filePath(entry.path);
        if (!canWrite(path))
            return QStringLiteral("could not write %1").arg(shown(entry.path));
        if (entry.replaces && exists(path)) {
            const QString aside = asideName(path);
            const bool linked = !busy(path) && !entry.sha256.isEmpty() && linkFile(path, aside);
            if (!linked && !replaceFile(path, aside))
                return inUse(entry.path);
            step();
        }
        if (entry.sha256.isEmpty())
            return {};
        const QString from = m_source.filePath(entry.path);
        if (replaceFile(from, path)) {
            step();
            return {};
        }
        const QString copy = copyName(path);
        QFile::remove(copy);
        if (QFile::copy(from, copy)) {
            step();
            if (replaceFile(copy, path)) {
                step();
                return {};
            }
        }
        return QStringLiteral("could not write %1").arg(shown(entry.path));
    }

    QDir m_source;
    QDir m_target;
    QString m_backup;
    const SwapOptions& m_options;
    QString m_journal;
};

} // namespace

QString swapJournalPath(const QString& target)
{
    return QDir::cleanPath(target) + QStringLiteral(".update-journal");
}

SwapResult swapTree(const QString& source, const QString& target, const QString& backup,
                    const SwapOptions& options)
{
    Swap swap(source, target, backup, options);
    SwapResult result;
    if (swap.wholeFolder(&result))
        return result;
    return swap.fileByFile();
}

SwapRecovery recoverInterruptedSwap(const QString& target)
{
    const QString journalPath = swapJournalPath(target);
    QFile::remove(journalPath + QStringLiteral(".part"));
    QFile file(journalPath);
    if (!file.exists())
        return SwapRecovery::NothingToDo;
    if (!file.open(QIODevice::ReadOnly))
        return SwapRecovery::Failed;
    const std::optional<SwapPlan> plan = parseJournal(file.read(MaxJournalBytes + 1));
    file.close();
    if (!plan) {
        // Not a journal this program could have written: nothing in it can be trusted.
        QFile::remove(journalPath);
        return SwapRecovery::Failed;
    }
    SwapRecovery outcome = SwapRecovery::RolledBack;
    if (plan->way == SwapPlan::Way::Folder) {
        if (QFileInfo(target).isDir())
            outcome =
                QFileInfo(plan->backup).isDir() ? SwapRecovery::Finished : SwapRecovery::RolledBack;
        else if (!QDir().rename(plan->backup, target))
            return SwapRecovery::Failed;
    } else if (isComplete(*plan, QDir(target))) {
        outcome = SwapRecovery::Finished;
    } else if (!rollBack(*plan, QDir(target), {})) {
        return SwapRecovery::Failed;
    }
    QFile::remove(journalPath);
    return outcome;
}

int removeOldFiles(const QString& folder)
{
    int removed = 0;
    QStringList emptied;
    QDirIterator it(folder, {QStringLiteral("*.old")}, AllFiles, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString file = it.next();
        if (QFile::remove(file)) {
            ++removed;
            emptied.append(QFileInfo(file).absolutePath());
        }
    }
    // Folders the new version no longer has held only such files: they go too.
    const QString root = QDir::cleanPath(QFileInfo(folder).absoluteFilePath());
    for (QString path : std::as_const(emptied)) {
        while (QDir::cleanPath(path) != root && QDir().rmdir(path))
            path = QFileInfo(path).absolutePath();
    }
    return removed;
}

} // namespace vantorelle
