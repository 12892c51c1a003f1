#include "plugin_updater_support.h"

#include "test_support.h"

#include <QDir>
#include <QProcess>

namespace vantorelle::test {

namespace {

// The module (its path written out, so that a wrong one in the updater shows) and two data
// files, one of them hidden.
void writePluginTree(const QString& root, const QString& version)
{
    const QDir dir(root);
    dir.mkpath("bin/64bit");
    dir.mkpath("data/locale");
    writeFile(dir.filePath("bin/64bit/vantorelle-obs.so"), "module " + version.toUtf8());
    writeFile(dir.filePath("data/locale/en-US.ini"), "Version=\"" + version.toUtf8() + "\"\n");
    writeFile(dir.filePath("data/.hidden"), version.toUtf8());
}

} // namespace

QByteArray makeSigningKey(const QString& privatePath, const QString& curve)
{
    if (QProcess::execute(
            "openssl", {"ecparam", "-name", curve, "-genkey", "-noout", "-out", privatePath}) != 0)
        return {};
    QProcess openssl;
    openssl.start("openssl", {"ec", "-in", privatePath, "-pubout"});
    if (!openssl.waitForFinished() || openssl.exitCode() != 0)
        return {};
    return openssl.readAllStandardOutput();
}

UpdaterSandbox::UpdaterSandbox()
{
    writePluginTree(root(), QStringLiteral("1.0.1"));
    m_publicKey = makeSigningKey(signingKey());
    writeFile(publicKeyFile(), m_publicKey);
    if (m_publicKey.isEmpty())
        qWarning("openssl could not make a signing key in %s", qPrintable(m_dir.path()));
}

UpdaterConfig UpdaterSandbox::config(const QUrl& manifestUrl) const
{
    UpdaterConfig config;
    config.requestTimeoutMs = 3000;
    config.manifestUrl = manifestUrl.toString();
    config.publicKeys = {m_publicKey};
    config.currentVersion = QStringLiteral("1.0.1");
    config.downloadPage = QStringLiteral("https://example.com/obs");
    config.obsVersion = QStringLiteral("30.2.3");
    config.stagingFolder = staging();
    config.installFolder = root();
    config.archiveTimeoutMs = 10000;
    return config;
}

QByteArray UpdaterSandbox::package(const QString& version) const
{
    const QString source = path(QStringLiteral("build-") + version);
    QDir(source).removeRecursively();
    writePluginTree(source + QStringLiteral("/vantorelle-obs"), version);
    QDir(source).mkpath(QStringLiteral("__MACOSX"));
    writeFile(source + QStringLiteral("/__MACOSX/._vantorelle-obs"), "resource fork");
    if (QProcess::execute("bsdtar", {"-a", "-cf", source + ".zip", "-C", source, "."}) != 0)
        qWarning("bsdtar could not zip %s", qPrintable(source));
    return readFile(source + ".zip");
}

} // namespace vantorelle::test
