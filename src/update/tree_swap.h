#pragma once

#include "updater_config.h"

#include <QString>

namespace vantorelle {

struct SwapResult
{
    bool ok = false;
    bool wholeFolder = false; // the target was replaced in one rename and kept as the backup
    QString reason;           // why it failed, for the user
};

// Puts the tree `source` in place of `target`. The whole folder is swapped when it can be
// (the old one then becomes `backup`); otherwise every file is moved over on its own, and
// files it replaces are moved aside as "<name>.old" because a running module cannot be
// overwritten but can be renamed. `isBusy` marks files held open (may be empty).
SwapResult swapTree(const QString& source, const QString& target, const QString& backup,
                    const PathPredicate& isBusy = {});

// Deletes every "*.old" file below `folder` (left there by an earlier update); returns how many.
int removeOldFiles(const QString& folder);

} // namespace vantorelle
