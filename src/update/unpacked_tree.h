#pragma once

#include <QString>

namespace vantorelle {

// The outcome of checking an unpacked package before anything is installed from it.
struct UnpackedTree
{
    bool ok = false;
    QString root;        // the package's single top-level folder
    QString failureText; // sentence for the user when `ok` is false
};

// Checks the unpack folder: exactly one top-level folder (a "__MACOSX" entry is ignored), no
// links (hard links included), no name Qt cannot reach, nothing that resolves outside the
// folder, and the module at `moduleRelativePath`.
UnpackedTree inspectUnpackedTree(const QString& unpackFolder, const QString& moduleRelativePath);

} // namespace vantorelle
