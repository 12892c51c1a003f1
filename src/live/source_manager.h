#pragma once

#include "device_session.h"
#include "tls_feed.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

#include <memory>

namespace vantorelle {

class LiveData;
class PortalClient;
struct PortalResult;

// Cloud polling pace: every second, and every five once the portal keeps failing. A run of
// failed polls shows the first one's sentence until a poll succeeds.
struct SourceManagerSettings
{
    int pollIntervalMs = 1000;
    int slowPollIntervalMs = 5000;
    // Consecutive failed polls after which the slow pace applies.
    int failuresBeforeSlowPoll = 6;
    // The device's live feed on the local network.
    TlsFeedSettings feed;
    // A live route with no envelope for this long is reported as stale (scores stay shown); a
    // cable whose device has sent nothing at all (not even ping answers) for linkSilenceMs too.
    int staleAfterMs = 30000;
    int linkSilenceMs = 15000;
    // How often a live route's age is looked at, and the stale text's seconds rise.
    int staleCheckMs = 1000;
};

// Decides where live data comes from for the one selected device (the cloud, the device's feed
// on the local network, or an open device session), feeds every envelope into the live data and
// publishes one status line with a live flag.
class SourceManager : public QObject
{
    Q_OBJECT

public:
    enum class Mode
    {
        None,
        Cloud,
        Network,
        Link
    };

    SourceManager(PortalClient* portal, LiveData* live, const SourceManagerSettings& settings = {},
                  QObject* parent = nullptr);
    ~SourceManager() override;

    // Follows a device of the account through the portal.
    void useCloud(const QString& deviceId, const QString& deviceName);
    // Follows a device on the local network through its live feed.
    void useLan(const QString& host, const QString& token, const QString& deviceName);
    // Follows a device through a session whose link is already open (USB or Bluetooth). The
    // manager keeps the session alive while it follows it.
    void useLink(std::shared_ptr<DeviceSession> session, const QString& deviceName);
    // Leaves the current mode.
    void stop();
    // One cloud poll (also the poll timer's action).
    void pollCloud();

    Mode mode() const { return m_mode; }
    QString deviceId() const { return m_deviceId; }
    QString deviceName() const { return m_deviceName; }
    bool isLive() const { return m_live; }
    QString status() const { return m_status; }
    // Live, but nothing arrived for too long; the next envelope clears it.
    bool isStale() const { return m_stale; }
    // Milliseconds since the last envelope of the current route; -1 before the first one.
    qint64 ageMs() const { return m_sinceEnvelope.isValid() ? m_sinceEnvelope.elapsed() : -1; }
    void setStaleAfterMs(int ms) { m_settings.staleAfterMs = ms; }
    int pollInterval() const { return m_pollTimer.interval(); }
    bool isPolling() const { return m_pollTimer.isActive(); }
    // What the current source is, for the sharing server's status ("cloud", "lan", "usb"...).
    QString sourceDescription() const;
    TlsFeed& feed() { return m_feed; }
    // The device session followed in link mode; empty otherwise.
    std::shared_ptr<DeviceSession> session() const { return m_session; }

Q_SIGNALS:
    void statusChanged();

private:
    void enter(Mode mode, const QString& deviceName, const QString& firstStatus,
               std::shared_ptr<DeviceSession> session = {});
    void setStatus(bool live, const QString& text);
    QString named(const char* text) const;
    void onPollReply(quint32 generation, const PortalResult& result);
    void onSignedInChanged(bool signedIn);
    void onFeedConnectedChanged(bool connected, const QString& detail);
    void onFeedEnvelope(const QJsonObject& envelope);
    void onSessionState(DeviceSession::State state);
    void onLinkEnvelope(const QJsonObject& envelope);
    void onFeedAttemptFailed(const QString& detail);
    // An envelope arrived: the route is live with `liveText`, and no longer stale.
    void heard(const QString& liveText);
    void checkStale();

    PortalClient* m_portal;
    LiveData* m_liveData;
    SourceManagerSettings m_settings;
    Mode m_mode = Mode::None;
    QString m_deviceId;
    QString m_deviceName;
    bool m_live = false;
    QString m_status;
    QTimer m_pollTimer;
    bool m_inFlight = false;
    int m_failures = 0;
    quint32 m_generation = 0;
    TlsFeed m_feed;
    std::shared_ptr<DeviceSession> m_session;
    QString m_linkKind;
    QElapsedTimer m_sinceEnvelope;
    QTimer m_staleTimer;
    bool m_stale = false;
};

} // namespace vantorelle
