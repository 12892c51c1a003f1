#pragma once

#include "manifest_signature.h"
#include "update_platform.h"
#include "version.h"

#include <QString>

#include <functional>

namespace vantorelle {

using PathPredicate = std::function<bool(const QString& path)>;

// Everything the updater needs to know about this build and this installation.
struct UpdaterConfig
{
    static constexpr int DefaultRequestTimeoutMs = 15000;
    static constexpr int DefaultArchiveTimeoutMs = 120000;

    // Transfer time-out of the manifest request; the package download gets twice as long.
    int requestTimeoutMs = DefaultRequestTimeoutMs;
    QString manifestUrl = QStringLiteral(VANTORELLE_UPDATE_URL);
    // PEM public keys a manifest's signature may verify with; none verifies: no manifest is used.
    QList<QByteArray> publicKeys = {builtInUpdatePublicKey()};
    QString currentVersion = pluginVersion();
    QString platformKey = platformPackageKey();
    // Shown when this copy cannot update itself; may be empty.
    QString downloadPage = QStringLiteral(VANTORELLE_DOWNLOAD_PAGE);
    // The running OBS version; empty when unknown (the "min_obs" test is then skipped).
    QString obsVersion;
    // Working folder: "package.zip", the unpack folder "extracted" and the backup "previous".
    QString stagingFolder;
    // The plug-in root, holding the module at `moduleRelativePath`.
    QString installFolder;
    QString moduleRelativePath = defaultModuleRelativePath();
    QString archiveTool = defaultArchiveTool();
    // The archive tool is killed after this long and the package counts as not unpackable.
    int archiveTimeoutMs = DefaultArchiveTimeoutMs;
    // The whole package download is stopped after this long, however steadily bytes arrive.
    int downloadTimeLimitMs = 10 * 60 * 1000;
    // A package whose manifest gives no size is discarded once it grows past this.
    qint64 maxDownloadBytes = 200LL * 1024 * 1024;
    // The archive's listing is refused beyond this many entries or bytes unpacked.
    qsizetype maxArchiveEntries = 10000;
    qint64 maxUnpackedBytes = 500LL * 1024 * 1024;
    PathPredicate isWritable = isWritablePath;
    // Files held open by a running program: they can be moved aside but neither removed nor
    // overwritten, and a folder holding one cannot be renamed. Empty: the file system decides.
    PathPredicate isBusy;
    // Replace file by file even where the whole folder could move.
    bool fileByFile = false;
    // Folders the swap may write into (a seam for failures half-way); empty: the file system
    // decides.
    PathPredicate swapWritable;
    // Called after every change on disk during the swap (a seam to stop the process there).
    std::function<void()> afterSwapStep;
};

} // namespace vantorelle
