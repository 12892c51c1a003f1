#pragma once

#include <QString>

namespace vantorelle {

// File-system moves the swap of the plug-in folder is built from. Each is one call to the
// system, so a crash leaves either the state before it or the state after it.

// Moves `from` to `to`, replacing a file already at `to`.
bool replaceFile(const QString& from, const QString& to);
// Gives the file at `path` a second name `alias` (a hard link), so that the file can then be
// replaced in one move while the current one stays reachable. False where links are not made.
bool linkFile(const QString& path, const QString& alias);
// Swaps two folders in one step. False where the system cannot (then two moves are needed).
bool exchangeFolders(const QString& first, const QString& second);

} // namespace vantorelle
