#pragma once

#include "updater_config.h"

#include <QTemporaryDir>
#include <QUrl>

namespace vantorelle::test {

// A plug-in installed as version 1.0.1 into a temporary folder, with its own staging folder.
class UpdaterSandbox
{
public:
    UpdaterSandbox();

    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    QString root() const { return path(QStringLiteral("plugin")); }
    QString staging() const { return path(QStringLiteral("config/update")); }
    // The updater's settings for this sandbox, with short time-outs.
    UpdaterConfig config(const QUrl& manifestUrl) const;
    // A zip of the plug-in tree of `version` under one top-level folder (and, as a Mac adds, a
    // "__MACOSX" folder beside it), made by the system's archive tool from "build-<version>".
    QByteArray package(const QString& version) const;

private:
    QTemporaryDir m_dir;
};

} // namespace vantorelle::test
