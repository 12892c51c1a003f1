#pragma once

#include "updater_config.h"

#include <QTemporaryDir>
#include <QUrl>

namespace vantorelle::test {

// Makes an EC key pair with the openssl command: the private key (PEM) at `privatePath`, the
// public one returned (PEM; empty when openssl failed).
QByteArray makeSigningKey(const QString& privatePath, const QString& curve = "prime256v1");

// A plug-in installed as version 1.0.1 into a temporary folder, with its own staging folder and
// its own signing key pair.
class UpdaterSandbox
{
public:
    UpdaterSandbox();

    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    QString root() const { return path(QStringLiteral("plugin")); }
    QString staging() const { return path(QStringLiteral("config/update")); }
    // The private key the sandbox's update service signs with (PEM).
    QString signingKey() const { return path(QStringLiteral("signing-key.pem")); }
    // Its public half (PEM), for a program told the key by VANTORELLE_UPDATE_KEY.
    QString publicKeyFile() const { return path(QStringLiteral("signing-key.pub.pem")); }
    // The updater's settings for this sandbox, with short time-outs, accepting signingKey().
    UpdaterConfig config(const QUrl& manifestUrl) const;
    // A zip of the plug-in tree of `version` under one top-level folder (and, as a Mac adds, a
    // "__MACOSX" folder beside it), made by the system's archive tool from "build-<version>".
    QByteArray package(const QString& version) const;

private:
    QTemporaryDir m_dir;
    QByteArray m_publicKey;
};

} // namespace vantorelle::test
