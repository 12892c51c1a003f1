#pragma once

#include <QString>

// The few things the updater does differently per operating system.
namespace vantorelle {

// The manifest's package key for this build ("windows-x64" or "linux-x86_64").
QString platformPackageKey();

// Where the module lies below the plug-in root, with this system's module suffix.
QString defaultModuleRelativePath();

// The system's own archive tool, which unpacks zip packages.
QString defaultArchiveTool();

// Whether this process may create files in `path` (a folder) or change it (a file).
bool isWritablePath(const QString& path);

} // namespace vantorelle
