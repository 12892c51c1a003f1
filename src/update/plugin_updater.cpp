#include "plugin_updater.h"

#include "archive_unpacker.h"
#include "package_download.h"
#include "tree_swap.h"
#include "unpacked_tree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

namespace vantorelle {

namespace {

QString downloadFailureText(PackageDownload::Outcome outcome)
{
    using O = PackageDownload::Outcome;
    switch (outcome) {
    case O::Complete:
        return {};
    case O::TooLarge:
        return QStringLiteral("The download was larger than expected, so it was discarded.");
    case O::Interrupted:
        return QStringLiteral(
            "The download did not finish. Check your internet connection and try again.");
    case O::Incomplete:
        return QStringLiteral("The download was incomplete, so it was discarded. Try again.");
    case O::ChecksumMismatch:
        return QStringLiteral(
            "The download did not match its checksum, so it was discarded. Nothing was changed.");
    case O::WriteFailed:
        break;
    }
    return QStringLiteral("Could not write the update to disk.");
}

QString unpackFailureText(ArchiveUnpacker::Outcome outcome)
{
    switch (outcome) {
    case ArchiveUnpacker::Outcome::Unpacked:
        return {};
    case ArchiveUnpacker::Outcome::CannotStart:
        return QStringLiteral(
            "The update could not be unpacked on this computer. Nothing was changed.");
    case ArchiveUnpacker::Outcome::Failed:
        break;
    }
    return QStringLiteral("The update could not be unpacked. Nothing was changed.");
}

QString cleanAbsolute(const QString& path)
{
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

} // namespace

PluginUpdater::PluginUpdater(QObject* parent)
    : QObject(parent), m_network(new QNetworkAccessManager(this))
{}

PluginUpdater::~PluginUpdater() = default;

int PluginUpdater::removeOldFiles(const QString& folder)
{
    return vantorelle::removeOldFiles(folder);
}

void PluginUpdater::setState(State state, const QString& text)
{
    if (state == m_state && text == m_statusText)
        return;
    m_state = state;
    m_statusText = text;
    Q_EMIT stateChanged();
}

QNetworkRequest PluginUpdater::request(const QUrl& url, int timeoutMs) const
{
    QByteArray agent = userAgent();
    if (!m_config.obsVersion.isEmpty())
        agent += " (" + m_config.obsVersion.toUtf8() + ')';
    QNetworkRequest request(url);
    request.setRawHeader("User-Agent", agent);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(timeoutMs);
    return request;
}

// --- check -------------------------------------------------------------------------------

void PluginUpdater::check(bool userInitiated)
{
    if (m_busy || m_state == Installed)
        return;
    if (!isAllowedUpdateAddress(m_config.manifestUrl)) {
        if (userInitiated)
            setState(Failed, QStringLiteral("The update address is not valid."));
        return;
    }
    m_busy = true;
    m_manifest = {};
    setState(Checking, QStringLiteral("Checking for updates"));
    QNetworkRequest manifestRequest =
        request(QUrl(m_config.manifestUrl), m_config.requestTimeoutMs);
    manifestRequest.setRawHeader("Accept", "application/json");
    QNetworkReply* reply = m_network->get(manifestRequest);
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, userInitiated] { finishCheck(reply, userInitiated); });
}

void PluginUpdater::finishCheck(QNetworkReply* reply, bool userInitiated)
{
    reply->deleteLater();
    m_busy = false;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || status < 200 || status > 299) {
        failCheck(QStringLiteral("Could not reach the Vantorelle update service. Check your "
                                 "internet connection."),
                  userInitiated);
        return;
    }
    m_manifest = parseUpdateManifest(
        reply->readAll(), {m_config.currentVersion, m_config.obsVersion, m_config.platformKey});
    if (!m_manifest.ok)
        failCheck(m_manifest.failureText, userInitiated);
    else if (m_manifest.newer)
        setState(Available, QStringLiteral("Version %1 is available.").arg(m_manifest.version));
    else
        setState(UpToDate,
                 QStringLiteral("Vantorelle %1 is up to date.").arg(m_config.currentVersion));
}

void PluginUpdater::failCheck(const QString& text, bool userInitiated)
{
    if (userInitiated)
        setState(Failed, text);
    else
        setState(Idle, QString());
}

// --- download ----------------------------------------------------------------------------

bool PluginUpdater::hasPackage() const
{
    return m_manifest.ok && m_manifest.newer && m_manifest.package.isValid();
}

bool PluginUpdater::canSelfUpdate() const
{
    if (m_config.installFolder.isEmpty())
        return false;
    const PathPredicate& writable = m_config.isWritable ? m_config.isWritable : isWritablePath;
    const QString root = cleanAbsolute(m_config.installFolder);
    const QString parent = QFileInfo(root).absolutePath();
    return QFileInfo(root).isDir() && writable(root) && writable(parent) &&
           QFileInfo(QDir(root).filePath(m_config.moduleRelativePath)).isFile();
}

QString PluginUpdater::stagingPath(const QString& name) const
{
    return QDir(m_config.stagingFolder).filePath(name);
}

void PluginUpdater::install()
{
    if (m_busy || (m_state != Available && m_state != Failed) || !hasPackage())
        return;
    if (!canSelfUpdate()) {
        const QString page = m_config.downloadPage.isEmpty()
                                 ? QStringLiteral("the Vantorelle website")
                                 : m_config.downloadPage;
        setState(Failed, QStringLiteral("This copy of the plugin was installed for all users, so "
                                        "it cannot update itself. Download and run the installer "
                                        "from %1.")
                             .arg(page));
        return;
    }
    if (!prepareStagingFolder()) {
        setState(Failed, QStringLiteral("Could not prepare a download folder (%1).")
                             .arg(QDir::toNativeSeparators(m_config.stagingFolder)));
        return;
    }
    startDownload();
}

bool PluginUpdater::prepareStagingFolder()
{
    const QString folder = m_config.stagingFolder;
    return !folder.isEmpty() && QDir(folder).removeRecursively() && QDir().mkpath(folder);
}

void PluginUpdater::startDownload()
{
    auto* download = new PackageDownload(m_network, this);
    if (!download->openFile(stagingPath(QStringLiteral("package.zip")))) {
        delete download;
        setState(Failed, QStringLiteral("Could not write the update to disk."));
        return;
    }
    m_download = download;
    m_busy = true;
    setState(Downloading, QStringLiteral("Downloading version %1").arg(m_manifest.version));
    connect(download, &PackageDownload::progressed, this, &PluginUpdater::showProgress);
    download->start(
        request(QUrl(m_manifest.package.url), 2 * m_config.requestTimeoutMs), m_manifest.package,
        [this](PackageDownload::Outcome outcome) { finishDownload(downloadFailureText(outcome)); });
}

void PluginUpdater::showProgress(int percent)
{
    setState(Downloading,
             QStringLiteral("Downloading version %1 %2%").arg(m_manifest.version).arg(percent));
}

void PluginUpdater::finishDownload(const QString& failureText)
{
    // Still inside the transfer's own signal: let it return before the object goes.
    if (m_download)
        m_download->deleteLater();
    if (!failureText.isEmpty()) {
        fail(failureText);
        return;
    }
    setState(Installing, QStringLiteral("Installing version %1").arg(m_manifest.version));
    unpack();
}

// --- unpack and install ------------------------------------------------------------------

void PluginUpdater::unpack()
{
    const QString folder = stagingPath(QStringLiteral("extracted"));
    if (!QDir().mkpath(folder)) {
        finishUnpack(unpackFailureText(ArchiveUnpacker::Outcome::Failed));
        return;
    }
    m_unpacker = new ArchiveUnpacker(this);
    m_unpacker->start(m_config.archiveTool, stagingPath(QStringLiteral("package.zip")), folder,
                      m_config.archiveTimeoutMs, [this](ArchiveUnpacker::Outcome outcome) {
                          finishUnpack(unpackFailureText(outcome));
                      });
}

void PluginUpdater::finishUnpack(const QString& failureText)
{
    if (m_unpacker)
        m_unpacker->deleteLater();
    if (failureText.isEmpty())
        installTree();
    else
        fail(failureText);
}

void PluginUpdater::installTree()
{
    const UnpackedTree tree =
        inspectUnpackedTree(stagingPath(QStringLiteral("extracted")), m_config.moduleRelativePath);
    if (!tree.ok) {
        fail(tree.failureText);
        return;
    }
    const SwapResult swap = swapTree(tree.root, cleanAbsolute(m_config.installFolder),
                                     stagingPath(QStringLiteral("previous")), m_config.isBusy);
    if (!swap.ok) {
        fail(QStringLiteral("The update could not be installed (%1). The current version was "
                            "left in place.")
                 .arg(swap.reason));
        return;
    }
    removeWorkFiles();
    m_busy = false;
    setState(Installed, QStringLiteral("Version %1 is installed. Restart OBS to start using it.")
                            .arg(m_manifest.version));
}

void PluginUpdater::fail(const QString& text)
{
    removeWorkFiles();
    m_busy = false;
    setState(Failed, text);
}

void PluginUpdater::removeWorkFiles()
{
    QFile::remove(stagingPath(QStringLiteral("package.zip")));
    QDir(stagingPath(QStringLiteral("extracted"))).removeRecursively();
}

} // namespace vantorelle
