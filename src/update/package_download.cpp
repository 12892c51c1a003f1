#include "package_download.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <algorithm>

namespace vantorelle {

PackageDownload::PackageDownload(QNetworkAccessManager* network, QObject* parent)
    : QObject(parent), m_network(network)
{
    m_timeLimit.setSingleShot(true);
    connect(&m_timeLimit, &QTimer::timeout, this, [this] {
        m_timedOut = true;
        if (m_reply)
            m_reply->abort();
    });
}

PackageDownload::~PackageDownload()
{
    stop();
}

void PackageDownload::stop()
{
    m_done = {};
    m_timeLimit.stop();
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
        m_reply->deleteLater();
    }
    m_file.close();
}

bool PackageDownload::openFile(const QString& path)
{
    m_file.setFileName(path);
    return m_file.open(QIODevice::WriteOnly | QIODevice::Truncate);
}

void PackageDownload::start(const QNetworkRequest& request, const UpdatePackage& package,
                            const DownloadLimits& limits, Completion done)
{
    m_package = package;
    m_limits = limits;
    m_done = std::move(done);
    m_timeLimit.start(limits.timeLimitMs);
    m_reply = m_network->get(request);
    connect(m_reply, &QNetworkReply::readyRead, this, &PackageDownload::receive);
    connect(m_reply, &QNetworkReply::downloadProgress, this, &PackageDownload::showProgress);
    connect(m_reply, &QNetworkReply::finished, this, &PackageDownload::finish);
}

void PackageDownload::receive()
{
    if (m_tooLarge || m_writeFailed || m_timedOut)
        return;
    const QByteArray bytes = m_reply->readAll();
    m_received += bytes.size();
    const qint64 cap = m_package.size > 0 ? m_package.size : m_limits.maxBytesWithoutSize;
    if (m_received > cap) {
        m_tooLarge = true;
        m_reply->abort();
        return;
    }
    m_hash.addData(bytes);
    if (m_file.write(bytes) != bytes.size()) {
        m_writeFailed = true;
        m_reply->abort();
    }
}

void PackageDownload::showProgress(qint64 received, qint64 total)
{
    if (total < 1)
        total = m_package.size;
    if (total < 1)
        return;
    const int percent = int(std::clamp<qint64>(received * 100 / total, 0, 100));
    if (percent == m_lastPercent)
        return;
    m_lastPercent = percent;
    Q_EMIT progressed(percent);
}

void PackageDownload::finish()
{
    // Bytes still buffered when the transfer ended count like any other.
    m_timeLimit.stop();
    if (m_reply->bytesAvailable() > 0)
        receive();
    m_file.close();
    m_reply->deleteLater();
    if (m_done)
        std::exchange(m_done, {})(outcome());
}

PackageDownload::Outcome PackageDownload::outcome() const
{
    if (m_tooLarge)
        return Outcome::TooLarge;
    if (m_timedOut)
        return Outcome::TimedOut;
    if (m_writeFailed)
        return Outcome::WriteFailed;
    const int status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (m_reply->error() != QNetworkReply::NoError || status < 200 || status > 299)
        return Outcome::Interrupted;
    if (m_package.size > 0 && m_received != m_package.size)
        return Outcome::Incomplete;
    if (QString::fromLatin1(m_hash.result().toHex()) != m_package.sha256)
        return Outcome::ChecksumMismatch;
    return Outcome::Complete;
}

} // namespace vantorelle
