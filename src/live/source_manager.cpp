#include "source_manager.h"

#include "device_link.h"
#include "live_data.h"
#include "portal_client.h"

namespace vantorelle {

SourceManager::SourceManager(PortalClient* portal, LiveData* live,
                             const SourceManagerSettings& settings, QObject* parent)
    : QObject(parent), m_portal(portal), m_liveData(live), m_settings(settings),
      m_feed(settings.feed)
{
    m_pollTimer.setInterval(m_settings.pollIntervalMs);
    connect(&m_pollTimer, &QTimer::timeout, this, &SourceManager::pollCloud);
    connect(m_portal, &PortalClient::signedInChanged, this, &SourceManager::onSignedInChanged);
    connect(&m_feed, &TlsFeed::connectedChanged, this, &SourceManager::onFeedConnectedChanged);
    connect(&m_feed, &TlsFeed::envelope, this, &SourceManager::onFeedEnvelope);
    connect(&m_feed, &TlsFeed::attemptFailed, this, &SourceManager::onFeedAttemptFailed);
    m_staleTimer.setInterval(m_settings.staleCheckMs);
    connect(&m_staleTimer, &QTimer::timeout, this, &SourceManager::checkStale);
}

SourceManager::~SourceManager()
{
    stop();
}

void SourceManager::stop()
{
    ++m_generation;
    m_pollTimer.stop();
    m_staleTimer.stop();
    m_stale = false;
    m_sinceEnvelope.invalidate();
    m_inFlight = false;
    m_mode = Mode::None;
    m_feed.stop();
    if (m_session)
        m_session->disconnect(this);
    m_session.reset();
}

void SourceManager::enter(Mode mode, const QString& deviceName, const QString& firstStatus,
                          std::shared_ptr<DeviceSession> session)
{
    stop();
    m_liveData->clear();
    m_mode = mode;
    m_session = std::move(session);
    m_deviceName = deviceName;
    if (m_deviceName != m_liveData->source())
        m_liveData->setSource(m_deviceName);
    if (!firstStatus.isEmpty())
        setStatus(false, firstStatus);
}

QString SourceManager::named(const char* text) const
{
    return QString::fromUtf8(text).arg(m_deviceName);
}

void SourceManager::setStatus(bool live, const QString& text)
{
    if (!live) {
        m_stale = false;
        m_staleTimer.stop();
    }
    if (live == m_live && text == m_status)
        return;
    m_live = live;
    m_status = text;
    Q_EMIT statusChanged();
}

QString SourceManager::sourceDescription() const
{
    switch (m_mode) {
    case Mode::None:
        return {};
    case Mode::Cloud:
        return QStringLiteral("cloud");
    case Mode::Network:
        return QStringLiteral("lan");
    case Mode::Link:
        return m_linkKind;
    }
    return {};
}

void SourceManager::useCloud(const QString& deviceId, const QString& deviceName)
{
    m_deviceId = deviceId;
    enter(Mode::Cloud, deviceName, QString::fromUtf8("Connecting to %1").arg(deviceName));
    m_failures = 0;
    m_pollTimer.setInterval(m_settings.pollIntervalMs);
    m_pollTimer.start();
    pollCloud();
}

void SourceManager::pollCloud()
{
    if (m_mode != Mode::Cloud || m_inFlight)
        return;
    if (!m_portal->isSignedIn())
        return setStatus(false, QStringLiteral("Sign in to see live scores."));
    m_inFlight = true;
    const quint32 generation = m_generation;
    const QPointer<SourceManager> alive(this);
    m_portal->deviceState(m_deviceId, [alive, generation](const PortalResult& result) {
        if (alive)
            alive->onPollReply(generation, result);
    });
}

void SourceManager::onPollReply(quint32 generation, const PortalResult& result)
{
    // A reply for a device that is no longer followed must not write into the model.
    if (generation != m_generation)
        return;
    m_inFlight = false;
    if (result.ok) {
        m_failures = 0;
        m_pollTimer.setInterval(m_settings.pollIntervalMs);
        if (result.data.value(QStringLiteral("type")).toString() == QLatin1String("pending"))
            return setStatus(false, named("%1 has not sent any scoreboard data yet."));
        m_liveData->apply(result.data);
        if (result.data.value(QStringLiteral("online")).toBool())
            return heard(named("Live from %1"));
        return setStatus(false, named("%1 is offline. Showing its last scores."));
    }
    ++m_failures;
    // Without a plan or without the device on the account, asking again cannot help.
    if (result.error == QLatin1String("cloud_subscription_required") ||
        result.error == QLatin1String("device_not_found_or_not_owned") ||
        (result.status == 402 && result.error.isEmpty())) {
        m_pollTimer.stop();
        return setStatus(false, result.message);
    }
    // A portal that keeps failing, one way then another, keeps the first failure's sentence up
    // rather than changing the status with every attempt.
    if (m_failures == 1)
        setStatus(false, result.message);
    if (m_failures >= m_settings.failuresBeforeSlowPoll)
        m_pollTimer.setInterval(m_settings.slowPollIntervalMs);
}

void SourceManager::onSignedInChanged(bool signedIn)
{
    // A device followed over the network or a cable never needed the account.
    if (m_mode == Mode::Network || m_mode == Mode::Link)
        return;
    if (!signedIn && m_mode == Mode::None)
        return setStatus(false, QStringLiteral("Signed out. Sign in to see live scores."));
    if (m_mode == Mode::None)
        return;
    if (!signedIn) {
        // Polling waits for the next sign-in, so the signed-out text stays.
        ++m_generation;
        m_inFlight = false;
        m_pollTimer.stop();
        return setStatus(false, QStringLiteral("Signed out. Sign in to see live scores."));
    }
    m_failures = 0;
    m_pollTimer.setInterval(m_settings.pollIntervalMs);
    m_pollTimer.start();
    pollCloud();
}

void SourceManager::useLan(const QString& host, const QString& token, const QString& deviceName)
{
    m_deviceId.clear();
    enter(Mode::Network, deviceName,
          QString::fromUtf8("Connecting to %1 on your network").arg(deviceName));
    m_feed.start(host, token);
}

void SourceManager::onFeedConnectedChanged(bool connected, const QString& detail)
{
    if (m_mode != Mode::Network)
        return;
    if (connected)
        return setStatus(false, named("Connected to %1, waiting for scoreboard data"));
    // A feed that stopped itself (its token was refused) says why; otherwise it reconnects.
    if (!m_feed.isRunning())
        return setStatus(false, detail);
    setStatus(false, named("Reconnecting to %1"));
}

void SourceManager::onFeedEnvelope(const QJsonObject& envelope)
{
    if (m_mode != Mode::Network)
        return;
    m_liveData->apply(envelope);
    heard(named("Live from %1 over your network"));
}

// An attempt that never got as far as live says why, while the feed tries again by itself.
void SourceManager::onFeedAttemptFailed(const QString& detail)
{
    if (m_mode != Mode::Network || !m_feed.isRunning())
        return;
    setStatus(false, detail.isEmpty() ? named("Reconnecting to %1")
                                      : named("Reconnecting to %1.") + QLatin1Char(' ') + detail);
}

void SourceManager::useLink(std::shared_ptr<DeviceSession> session, const QString& deviceName)
{
    m_deviceId.clear();
    // The session is in place before the first status goes out, so that whoever follows the
    // status already finds it.
    enter(Mode::Link, deviceName, {}, std::move(session));
    setStatus(false, named("Connected to %1, waiting for scoreboard data"));
    if (!m_session)
        return;
    DeviceLink* link = m_session->link();
    m_linkKind = link ? link->kind() : QString();
    connect(m_session.get(), &DeviceSession::stateChanged, this,
            [this](DeviceSession::State state, const QString&) { onSessionState(state); });
    connect(m_session.get(), &DeviceSession::envelope, this, &SourceManager::onLinkEnvelope);
}

void SourceManager::onSessionState(DeviceSession::State state)
{
    switch (state) {
    case DeviceSession::State::Restarting:
        return setStatus(false, named("%1 is restarting. Reopen the setup window to reconnect."));
    case DeviceSession::State::Lost:
    case DeviceSession::State::Error:
        return setStatus(false, named("Lost the connection to %1"));
    case DeviceSession::State::Ready:
        // Only a session that is not delivering scores goes back to waiting.
        if (!m_live)
            setStatus(false, named("Connected to %1, waiting for scoreboard data"));
        return;
    default:
        return;
    }
}

void SourceManager::onLinkEnvelope(const QJsonObject& envelope)
{
    m_liveData->apply(envelope);
    heard(named("Live from %1"));
}

void SourceManager::heard(const QString& liveText)
{
    m_sinceEnvelope.start();
    m_stale = false;
    if (!m_staleTimer.isActive())
        m_staleTimer.start(m_settings.staleCheckMs);
    setStatus(true, liveText);
}

// A quiet scoreboard is normal, so the scores stay; the status says how long it has been quiet.
void SourceManager::checkStale()
{
    if (!m_live || !m_sinceEnvelope.isValid())
        return m_staleTimer.stop();
    const qint64 age = m_sinceEnvelope.elapsed();
    const DeviceLink* link = m_mode == Mode::Link && m_session ? m_session->link() : nullptr;
    const qint64 silent = link ? link->msSinceHeard() : -1;
    if (age < m_settings.staleAfterMs && silent < m_settings.linkSilenceMs)
        return;
    m_stale = true;
    setStatus(true, named("No data from %1 for %2 s").arg(age / 1000));
}

} // namespace vantorelle
