#pragma once

#include "share_clients.h"
#include "state_log.h"

#include <QElapsedTimer>
#include <QObject>
#include <QProcess>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

namespace vantorelle::sim {
class FeedServer;
class Game;
class UsbDevice;
} // namespace vantorelle::sim

namespace vantorelle::soak {

// One way into the product under soak: a simulated device, a `vantorelle-bridge watch` process
// following it and sharing its live data, the reading clients and the slow client of that
// bridge's sharing server.
class Route : public QObject
{
    Q_OBJECT

public:
    enum class Kind
    {
        Usb, // the device on a pseudo-terminal
        Lan  // the device's TLS live feed on 127.0.0.1
    };

    struct Settings
    {
        Kind kind = Kind::Usb;
        QString bridgePath;
        int intervalMs = 100;
        int clients = 50;
    };

    Route(const Settings& settings, const QElapsedTimer* clock, QObject* parent = nullptr);
    // Terminates the bridge when it still runs.
    ~Route() override;

    QString name() const;
    // Starts the device, its game and the bridge; false with the reason when one cannot start.
    bool start(QString* error);
    // The bridge announced its sharing port and the clients are connecting.
    bool isSharing() const { return m_sharePort != 0; }
    bool bridgeRunning() const { return m_bridge.state() != QProcess::NotRunning; }

    // The bridge's resident memory in kB now; nullopt when it cannot be read.
    std::optional<qint64> bridgeRssKb() const;
    void sampleStartRss();
    void sampleEndRss();

    void stopGame();
    // Every reading client has the last change (or will get nothing more).
    bool clientsDone() const;
    // Forgets the changes every client is well past.
    void forgetOldChanges();
    // Ends the clients' counts and hangs them up, then terminates the bridge.
    void finish();

    // One report line; the reasons this route fails the run are appended to `failures`.
    // Memory growth between the samples fails it only when `maxGrowthMbPerHour` is set.
    QString report(std::optional<double> maxGrowthMbPerHour, QStringList* failures) const;

Q_SIGNALS:
    // The bridge ended while the run went on.
    void bridgeDied();

private:
    bool startDevice(QString* error);
    QStringList bridgeArguments() const;
    void readBridgeErrors();
    void onBridgeLine(const QString& line);
    void onBridgeFinished(int exitCode, QProcess::ExitStatus status);
    void connectClients();

    Settings m_settings;
    const QElapsedTimer* m_clock;
    std::unique_ptr<sim::UsbDevice> m_usb;
    std::unique_ptr<sim::Game> m_ownGame; // the network device's; the USB device owns its own
    std::unique_ptr<sim::FeedServer> m_feed;
    sim::Game* m_game = nullptr;
    QString m_token;
    StateLog m_log;

    QProcess m_bridge;
    QByteArray m_errorBuffer;
    QStringList m_lastErrorLines; // the bridge's last status sentences, for a death report
    quint16 m_sharePort = 0;
    bool m_stopping = false;
    std::optional<QString> m_death; // how the bridge ended while it should have run
    std::optional<QString> m_badExit;

    std::vector<std::unique_ptr<ReadingClient>> m_clients;
    std::unique_ptr<SlowClient> m_slow;
    QString m_slowError;
    bool m_slowDropped = false;
    QString m_slowDetail; // when it was dropped, and after how many requests

    std::optional<qint64> m_startRssKb;
    std::optional<qint64> m_endRssKb;
    qint64 m_startRssAtMs = 0;
    qint64 m_endRssAtMs = 0;
};

} // namespace vantorelle::soak
