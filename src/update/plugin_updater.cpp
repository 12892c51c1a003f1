#include "plugin_updater.h"

#include "archive_unpacker.h"
#include "manifest_signature.h"
#include "package_download.h"
#include "reply_limit.h"
#include "tls_support.h"
#include "tree_swap.h"
#include "unpacked_tree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include <optional>

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
    case O::TimedOut:
        return QStringLiteral(
            "The download took too long, so it was stopped. Nothing was changed.");
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
    case ArchiveUnpacker::Outcome::Refused: // comes with its own text
        break;
    }
    return QStringLiteral("The update could not be unpacked. Nothing was changed.");
}

// A DER signature is at most 72 bytes; a server sending kilobytes is not sending one.
constexpr qint64 MaxSignatureBytes = 4096;
// A manifest is a few kilobytes of JSON.
constexpr qint64 MaxManifestBytes = 1024 * 1024;

// The body of a finished reply limited by limitReplySize; nothing when it was larger than
// `maxBytes` (it may have arrived whole before the limit could stop it).
std::optional<QByteArray> cappedBody(QNetworkReply* reply, qint64 maxBytes)
{
    const QByteArray body = reply->read(maxBytes + 1);
    if (replyWasTooLarge(reply) || body.size() > maxBytes)
        return std::nullopt;
    return body;
}

QString cleanAbsolute(const QString& path)
{
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

} // namespace

PluginUpdater::PluginUpdater(QObject* parent)
    : QObject(parent), m_network(new QNetworkAccessManager(this))
{}

PluginUpdater::~PluginUpdater()
{
    // Its answer must not reach an updater half gone.
    if (m_checkReply) {
        m_checkReply->disconnect(this);
        m_checkReply->abort();
    }
}

int PluginUpdater::tidyInstallFolder(const QString& folder)
{
    recoverInterruptedSwap(folder);
    return removeOldFiles(folder);
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
    if (lacksTlsFor(QUrl(m_config.manifestUrl))) {
        failCheck(noTlsText(), userInitiated);
        return;
    }
    m_busy = true;
    m_manifest = {};
    setState(Checking, QStringLiteral("Checking for updates"));
    QNetworkRequest manifestRequest =
        request(QUrl(m_config.manifestUrl), m_config.requestTimeoutMs);
    manifestRequest.setRawHeader("Accept", "application/json");
    QNetworkReply* reply = m_network->get(manifestRequest);
    m_checkReply = reply;
    limitReplySize(reply, MaxManifestBytes);
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, userInitiated] { finishCheck(reply, userInitiated); });
}

void PluginUpdater::finishCheck(QNetworkReply* reply, bool userInitiated)
{
    reply->deleteLater();
    const std::optional<QByteArray> manifest = cappedBody(reply, MaxManifestBytes);
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (!manifest) {
        m_busy = false;
        failCheck(QStringLiteral("The update information was not readable."), userInitiated);
        return;
    }
    if (reply->error() != QNetworkReply::NoError || status < 200 || status > 299) {
        m_busy = false;
        failCheck(QStringLiteral("Could not reach the Vantorelle update service. Check your "
                                 "internet connection."),
                  userInitiated);
        return;
    }
    fetchSignature(*manifest, userInitiated);
}

// The manifest names the package and its SHA-256, so it counts only when signed by the maker:
// the transport alone does not vouch for it.
void PluginUpdater::fetchSignature(const QByteArray& manifest, bool userInitiated)
{
    QUrl address(m_config.manifestUrl);
    const QString path = address.path();
    address.setPath((path.isEmpty() ? QStringLiteral("/") : path) + QStringLiteral(".sig"));
    QNetworkReply* reply = m_network->get(request(address, m_config.requestTimeoutMs));
    m_checkReply = reply;
    limitReplySize(reply, MaxSignatureBytes);
    connect(reply, &QNetworkReply::finished, this, [this, reply, manifest, userInitiated] {
        finishSignature(reply, manifest, userInitiated);
    });
}

void PluginUpdater::finishSignature(QNetworkReply* reply, const QByteArray& manifest,
                                    bool userInitiated)
{
    reply->deleteLater();
    m_busy = false;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const bool received =
        reply->error() == QNetworkReply::NoError && status >= 200 && status <= 299;
    const std::optional<QByteArray> signature = cappedBody(reply, MaxSignatureBytes);
    if (!received || !signature ||
        verifyManifestSignature(manifest, *signature, m_config.publicKeys) !=
            SignatureCheck::Verified) {
        failCheck(QStringLiteral("The update information could not be verified."), userInitiated);
        return;
    }
    m_manifest = parseUpdateManifest(
        manifest, {m_config.currentVersion, m_config.obsVersion, m_config.platformKey});
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
    if (lacksTlsFor(QUrl(m_manifest.package.url))) {
        setState(Failed, noTlsText());
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
    m_downloadPercent = 0;
    setState(Downloading, QStringLiteral("Downloading version %1").arg(m_manifest.version));
    connect(download, &PackageDownload::progressed, this, &PluginUpdater::showProgress);
    download->start(
        request(QUrl(m_manifest.package.url), 2 * m_config.requestTimeoutMs), m_manifest.package,
        {m_config.maxDownloadBytes, m_config.downloadTimeLimitMs},
        [this](PackageDownload::Outcome outcome) { finishDownload(downloadFailureText(outcome)); });
}

bool PluginUpdater::canCancel() const
{
    return m_download || m_unpacker;
}

void PluginUpdater::cancel()
{
    if (!canCancel())
        return;
    // Stopped now, deleted later: this may run inside one of their own signals.
    if (m_download) {
        m_download->stop();
        m_download->deleteLater();
        m_download.clear();
    }
    if (m_unpacker) {
        m_unpacker->stop();
        m_unpacker->deleteLater();
        m_unpacker.clear();
    }
    removeWorkFiles();
    m_busy = false;
    setState(Available, QStringLiteral("Version %1 is available.").arg(m_manifest.version));
}

void PluginUpdater::showProgress(int percent)
{
    m_downloadPercent = percent;
    setState(Downloading,
             QStringLiteral("Downloading version %1 %2%").arg(m_manifest.version).arg(percent));
}

void PluginUpdater::finishDownload(const QString& failureText)
{
    // Still inside the transfer's own signal: let it return before the object goes.
    if (m_download)
        m_download->deleteLater();
    m_download.clear();
    if (!failureText.isEmpty()) {
        fail(failureText);
        return;
    }
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
    // Observers learn of Installing with the tool already there to cancel, and before the tool
    // can fail to start.
    m_unpacker = new ArchiveUnpacker(this);
    setState(Installing, QStringLiteral("Installing version %1").arg(m_manifest.version));
    m_unpacker->start(m_config.archiveTool, stagingPath(QStringLiteral("package.zip")), folder,
                      m_config.archiveTimeoutMs,
                      {m_config.maxArchiveEntries, m_config.maxUnpackedBytes},
                      [this](ArchiveUnpacker::Outcome outcome, const QString& refusal) {
                          finishUnpack(refusal.isEmpty() ? unpackFailureText(outcome) : refusal);
                      });
}

void PluginUpdater::finishUnpack(const QString& failureText)
{
    // Past this point nothing can be cancelled: the swap is next.
    if (m_unpacker)
        m_unpacker->deleteLater();
    m_unpacker.clear();
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
    SwapOptions options;
    options.isBusy = m_config.isBusy;
    options.isWritable = m_config.swapWritable;
    options.fileByFile = m_config.fileByFile;
    options.moduleRelativePath = m_config.moduleRelativePath;
    options.afterStep = m_config.afterSwapStep;
    const SwapResult swap = swapTree(tree.root, cleanAbsolute(m_config.installFolder),
                                     stagingPath(QStringLiteral("previous")), options);
    if (!swap.ok) {
        fail((swap.restored ? QStringLiteral("The update could not be installed (%1). The current "
                                             "version was left in place.")
                            : QStringLiteral("The update could not be installed (%1), and the "
                                             "current version could not be fully restored. "
                                             "Restart OBS to finish restoring it."))
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
