#pragma once

#include "updater_config.h"

#include <QString>

#include <functional>

namespace vantorelle {

struct SwapResult
{
    bool ok = false;
    bool wholeFolder = false; // the target was replaced in one move and kept as the backup
    // After a failure: the target holds the current version, exactly as before. When false the
    // journal stays, and the next start finishes restoring it.
    bool restored = true;
    QString reason; // why it failed, for the user
};

struct SwapOptions
{
    // Files held open by a running program: they can be moved aside but neither removed nor
    // overwritten, and a folder holding one cannot be moved. Empty: the file system decides.
    PathPredicate isBusy;
    // Folders the swap may write into; empty: the file system decides.
    PathPredicate isWritable;
    // Replace file by file even when the whole folder could move (as a folder holding a loaded
    // module cannot on Windows).
    bool fileByFile = false;
    // The module, relative to the folder: replaced last, as the next start loads it first.
    QString moduleRelativePath;
    // Called after every change on disk, journal writes included.
    std::function<void()> afterStep;
};

// Puts the tree `source` in place of `target`, so that `target` holds exactly the new tree or,
// when it fails (or the process dies half-way and the next start recovers), exactly the current
// one. The whole folder moves when it can (the current one then becomes `backup`); otherwise
// every file is replaced on its own and the one it replaces is kept as "<name>.old", because a
// running module cannot be overwritten but can be renamed. A journal beside `target`
// (swapJournalPath) records the plan and every step until the swap is complete.
SwapResult swapTree(const QString& source, const QString& target, const QString& backup,
                    const SwapOptions& options = {});

// Where the swap of `target` keeps its journal: beside the folder, not in it.
QString swapJournalPath(const QString& target);

enum class SwapRecovery
{
    NothingToDo,
    Finished,   // the new version was whole: the journal is gone, the ".old" files stay
    RolledBack, // the current version is back in place
    Failed      // the journal stays for the next attempt
};

// Run at start-up before any ".old" file is deleted: completes or undoes a swap of `target`
// that a crash interrupted.
SwapRecovery recoverInterruptedSwap(const QString& target);

// Deletes every "*.old" file below `folder` (left there by an earlier update), and folders the
// update emptied that way; returns how many files.
int removeOldFiles(const QString& folder);

} // namespace vantorelle
