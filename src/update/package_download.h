#pragma once

#include "update_manifest.h"

#include <QCryptographicHash>
#include <QFile>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <functional>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

namespace vantorelle {

// What a download may take when all else fails.
struct DownloadLimits
{
    // Size cap when the manifest announces none.
    qint64 maxBytesWithoutSize = 0;
    // From the request to the last byte, however steadily the bytes come.
    int timeLimitMs = 0;
};

// Streams one update package to disk, hashing it on the way and stopping as soon as it grows
// past the size the manifest announced (or the cap without one), or runs out of time.
class PackageDownload : public QObject
{
    Q_OBJECT

public:
    enum class Outcome
    {
        Complete,
        TooLarge,
        TimedOut,
        Interrupted,
        Incomplete,
        ChecksumMismatch,
        WriteFailed
    };
    using Completion = std::function<void(Outcome)>;

    explicit PackageDownload(QNetworkAccessManager* network, QObject* parent = nullptr);
    ~PackageDownload() override;

    // Creates the file the package is written to; false when it cannot be created.
    bool openFile(const QString& path);
    // Fetches the package; `done` is called once, after the file has been closed.
    void start(const QNetworkRequest& request, const UpdatePackage& package,
               const DownloadLimits& limits, Completion done);
    // Abandons the transfer and closes the file; `done` is not called.
    void stop();

Q_SIGNALS:
    // Whole percents, only when the value changes.
    void progressed(int percent);

private:
    void receive();
    void showProgress(qint64 received, qint64 total);
    void finish();
    Outcome outcome() const;

    QNetworkAccessManager* m_network;
    QPointer<QNetworkReply> m_reply;
    QFile m_file;
    QCryptographicHash m_hash{QCryptographicHash::Sha256};
    UpdatePackage m_package;
    DownloadLimits m_limits;
    QTimer m_timeLimit;
    Completion m_done;
    qint64 m_received = 0;
    bool m_tooLarge = false;
    bool m_timedOut = false;
    bool m_writeFailed = false;
    int m_lastPercent = -1;
};

} // namespace vantorelle
