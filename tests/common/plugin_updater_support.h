#pragma once

#include "update/plugin_updater.h"
#include "update/updater_config.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QTemporaryDir>
#include <QUrl>

#include <initializer_list>

namespace vantorelle::test {

// One entry of a zip archive written byte by byte (for entries the archive tool will not make).
struct ZipEntry
{
    enum Kind
    {
        File,
        Folder,
        Link
    };
    QString name;    // as stored, "/" separated; folders without the trailing "/"
    QByteArray data; // file contents, or the link's target
    Kind kind = File;
};

// A zip archive (stored, no compression) holding `entries` with Unix modes.
QByteArray zipArchive(const QList<ZipEntry>& entries);

// Zips everything inside `folder` with the system's archive tool ("bsdtar -a -cf").
QByteArray zipFolder(const QString& folder);

// A digest of a whole tree: every path, entry type, permission bits, link target and content.
// Equal digests mean the tree is the same byte for byte. Empty for a missing folder.
QByteArray treeDigest(const QString& folder);

// Writes a plug-in tree of `version`: the module for this platform and a few data files.
void writePluginTree(const QString& root, const QString& version);

// Writes an executable shell script.
void writeScript(const QString& path, const QByteArray& body);

// Waits until the updater reaches one of `states`; false after `timeoutMs`.
bool waitForState(const PluginUpdater& updater, std::initializer_list<PluginUpdater::State> states,
                  int timeoutMs = 10000);

// A plug-in installed as version 1.0.1 into a temporary folder, with its own staging folder.
class UpdaterSandbox
{
public:
    UpdaterSandbox();

    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    QString root() const { return path(QStringLiteral("plugin")); }
    QString staging() const { return path(QStringLiteral("config/update")); }

    // The updater's settings for this sandbox with short time-outs.
    UpdaterConfig config(const QUrl& manifestUrl) const;
    // A package zip holding the plug-in tree of `version` under one top-level folder.
    QByteArray package(const QString& version) const;

private:
    QTemporaryDir m_dir;
};

} // namespace vantorelle::test
