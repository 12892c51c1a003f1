#pragma once

#include <QByteArray>
#include <QString>

namespace vantorelle {

// The package of one platform, as the manifest describes it.
struct UpdatePackage
{
    QString url;
    QString sha256;  // lower-case hexadecimal, 64 digits
    qint64 size = 0; // 0 when the manifest gives none (size checks are then skipped)

    bool isValid() const { return !url.isEmpty() && sha256.size() == 64; }
};

// What a fetched manifest told us. `ok` false carries the sentence to show in `failureText`.
struct UpdateManifest
{
    bool ok = false;
    QString failureText;

    QString version;
    QString released;
    QString minObs;
    QString notes;
    bool newer = false;    // the version is newer than the running one
    UpdatePackage package; // kept only when an update for this computer is available
};

// What the running copy is compared against.
struct UpdateContext
{
    QString currentVersion;
    QString obsVersion; // empty when unknown
    QString platformKey;
};

// Validates the manifest body and decides whether it offers an update for this computer.
UpdateManifest parseUpdateManifest(const QByteArray& body, const UpdateContext& context);

// Negative when `a` is older than `b`, 0 when equal, positive when newer. Accepts a leading
// "v"; a pre-release ("-...") ranks below the release with the same numbers; build metadata
// ("+...") is ignored.
int compareVersions(const QString& a, const QString& b);

// True for https addresses, and for http ones only on this computer (a local test server).
bool isAllowedUpdateAddress(const QString& address);

} // namespace vantorelle
