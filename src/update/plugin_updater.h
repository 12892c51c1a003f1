#pragma once

#include "update_manifest.h"
#include "updater_config.h"

#include <QObject>
#include <QPointer>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;
class QUrl;

namespace vantorelle {

class ArchiveUnpacker;
class PackageDownload;

// Keeps the plug-in current: reads the published manifest, and on request downloads, verifies,
// unpacks and swaps in the new version, which loads at the next OBS start. Observers read
// `state()` and `statusText()` after every `stateChanged()`.
class PluginUpdater : public QObject
{
    Q_OBJECT

public:
    enum State
    {
        Idle,
        Checking,
        UpToDate,
        Available,
        Downloading,
        Installing,
        Installed,
        Failed
    };
    Q_ENUM(State)

    explicit PluginUpdater(QObject* parent = nullptr);
    ~PluginUpdater() override;

    void setConfig(const UpdaterConfig& config) { m_config = config; }
    const UpdaterConfig& config() const { return m_config; }

    // Starts a check unless one is under way or an update was installed. Only a check the user
    // asked for shows its failure; an automatic one falls back to Idle without a word.
    void check(bool userInitiated);
    // Downloads and installs the available update; ignored while anything is under way, in any
    // state but Available and Failed, and when no valid package is known.
    void install();
    // Stops a download, or the archive tool before the swap begins, removes the work files and
    // offers the same update again; ignored at any other time.
    void cancel();
    // Whether cancel() would stop something now.
    bool canCancel() const;
    // A newer package for this computer is known, so Install can be tried (again).
    bool hasPackage() const;
    // How much of the package has arrived while downloading, 0 to 100.
    int downloadPercent() const { return m_downloadPercent; }
    // Whether this copy may replace its own files (not so for an all-users installation).
    bool canSelfUpdate() const;

    State state() const { return m_state; }
    QString statusText() const { return m_statusText; }
    // Something (check, download or unpacking) is under way.
    bool isBusy() const { return m_busy; }
    // The last manifest read: version, release date and notes for the banner.
    const UpdateManifest& manifest() const { return m_manifest; }

    // Run at start-up: finishes or undoes a swap of `folder` that a crash interrupted, then
    // deletes every "*.old" file an earlier update left below it; returns how many.
    static int tidyInstallFolder(const QString& folder);

Q_SIGNALS:
    void stateChanged();

private:
    void setState(State state, const QString& text);
    QNetworkRequest request(const QUrl& url, int timeoutMs) const;
    void finishCheck(QNetworkReply* reply, bool userInitiated);
    void fetchSignature(const QByteArray& manifest, bool userInitiated);
    void finishSignature(QNetworkReply* reply, const QByteArray& manifest, bool userInitiated);
    void failCheck(const QString& text, bool userInitiated);
    bool prepareStagingFolder();
    void startDownload();
    void showProgress(int percent);
    void finishDownload(const QString& failureText);
    void unpack();
    void finishUnpack(const QString& failureText);
    void installTree();
    void fail(const QString& text);
    void removeWorkFiles();
    QString stagingPath(const QString& name) const;

    UpdaterConfig m_config;
    QNetworkAccessManager* m_network;
    // The manifest or its signature, while on the way.
    QPointer<QNetworkReply> m_checkReply;
    QPointer<PackageDownload> m_download;
    QPointer<ArchiveUnpacker> m_unpacker;
    State m_state = Idle;
    QString m_statusText;
    bool m_busy = false;
    int m_downloadPercent = 0;
    UpdateManifest m_manifest;
};

} // namespace vantorelle
