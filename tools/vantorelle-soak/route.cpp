#include "route.h"

#include "sim/admin_responder.h"
#include "sim/feed_server.h"
#include "sim/game.h"
#include "sim/usb_device.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace vantorelle::soak {

namespace {

// A status sentence longer than this is cut: the bridge's are short.
constexpr qsizetype kMaxErrorLine = 4096;
constexpr int kLastErrorLines = 8;
// Changes kept behind the slowest client, so that a late old state is still recognised as
// out of order: ten minutes of a game at 10 Hz.
constexpr qint64 kKeepBehind = 6000;
constexpr int kBridgeStopMs = 5000;

QString megabytes(qint64 kb)
{
    return QString::number(double(kb) / 1024.0, 'f', 1);
}

QString signedMegabytes(double mb)
{
    // Rounded first, so that a tiny drop reads +0.0 rather than -0.0.
    const double tenths = std::round(mb * 10) / 10;
    return tenths < 0 ? QString::number(tenths, 'f', 1)
                      : QStringLiteral("+") + QString::number(std::abs(tenths), 'f', 1);
}

} // namespace

Route::Route(const Settings& settings, const QElapsedTimer* clock, QObject* parent)
    : QObject(parent), m_settings(settings), m_clock(clock)
{
    m_bridge.setStandardOutputFile(QProcess::nullDevice());
    connect(&m_bridge, &QProcess::readyReadStandardError, this, &Route::readBridgeErrors);
    connect(&m_bridge, &QProcess::finished, this, &Route::onBridgeFinished);
}

Route::~Route()
{
    m_clients.clear();
    m_slow.reset();
    if (bridgeRunning()) {
        m_stopping = true;
        m_bridge.kill();
        m_bridge.waitForFinished(kBridgeStopMs);
    }
}

QString Route::name() const
{
    return m_settings.kind == Kind::Usb ? QStringLiteral("usb") : QStringLiteral("lan");
}

bool Route::start(QString* error)
{
    if (!startDevice(error))
        return false;
    connect(m_game, &sim::Game::envelopeReady, this,
            [this](const QJsonObject& envelope) { m_log.record(envelope, m_clock->elapsed()); });
    m_game->start(m_settings.intervalMs);

    m_bridge.start(m_settings.bridgePath, bridgeArguments());
    if (!m_bridge.waitForStarted()) {
        *error = QStringLiteral("could not start %1: %2")
                     .arg(m_settings.bridgePath, m_bridge.errorString());
        return false;
    }
    return true;
}

bool Route::startDevice(QString* error)
{
    if (m_settings.kind == Kind::Usb) {
        m_usb = std::make_unique<sim::UsbDevice>();
        m_game = m_usb->game();
        if (!m_usb->start()) {
            *error = QStringLiteral("could not open a pseudo-terminal for the USB device");
            return false;
        }
        return true;
    }
    m_ownGame = std::make_unique<sim::Game>();
    m_game = m_ownGame.get();
    m_token = QString::number(QRandomGenerator::system()->generate64(), 16);
    m_feed = std::make_unique<sim::FeedServer>();
    m_feed->setExpectedToken(m_token);
    connect(m_game, &sim::Game::envelopeReady, m_feed.get(), &sim::FeedServer::broadcast);
    if (!m_feed->start(0)) {
        *error = QStringLiteral("the network device could not listen for its live feed");
        return false;
    }
    return true;
}

QStringList Route::bridgeArguments() const
{
    QStringList arguments{QStringLiteral("watch")};
    if (m_settings.kind == Kind::Usb) {
        arguments << QStringLiteral("--usb") << m_usb->portPath() << QStringLiteral("--password")
                  << m_usb->admin()->password();
    } else {
        arguments << QStringLiteral("--lan") << QStringLiteral("127.0.0.1")
                  << QStringLiteral("--token") << m_token << QStringLiteral("--feed-port")
                  << QString::number(m_feed->serverPort());
    }
    return arguments << QStringLiteral("--serve") << QStringLiteral("0");
}

void Route::readBridgeErrors()
{
    m_errorBuffer.append(m_bridge.readAllStandardError());
    qsizetype end;
    while ((end = m_errorBuffer.indexOf('\n')) >= 0) {
        onBridgeLine(QString::fromLocal8Bit(m_errorBuffer.left(std::min(end, kMaxErrorLine))));
        m_errorBuffer.remove(0, end + 1);
    }
    if (m_errorBuffer.size() > kMaxErrorLine) {
        onBridgeLine(QString::fromLocal8Bit(m_errorBuffer.left(kMaxErrorLine)));
        m_errorBuffer.clear();
    }
}

void Route::onBridgeLine(const QString& line)
{
    m_lastErrorLines.append(line);
    while (m_lastErrorLines.size() > kLastErrorLines)
        m_lastErrorLines.removeFirst();
    static const QRegularExpression sharing(
        QStringLiteral("^Sharing the live data on 127\\.0\\.0\\.1 port (\\d+)$"));
    const QRegularExpressionMatch match = sharing.match(line);
    if (match.hasMatch() && m_sharePort == 0) {
        m_sharePort = match.captured(1).toUShort();
        connectClients();
    }
}

void Route::connectClients()
{
    for (int i = 0; i < m_settings.clients; ++i) {
        m_clients.push_back(std::make_unique<ReadingClient>(&m_log, m_clock));
        m_clients.back()->connectTo(m_sharePort);
    }
    m_slow = std::make_unique<SlowClient>();
    if (!m_slow->connectTo(m_sharePort, &m_slowError))
        m_slow.reset();
}

void Route::onBridgeFinished(int exitCode, QProcess::ExitStatus status)
{
    const QString how = status == QProcess::CrashExit
                            ? QStringLiteral("crashed")
                            : QStringLiteral("exited with status %1").arg(exitCode);
    if (m_stopping) {
        if (status == QProcess::CrashExit || exitCode != 0)
            m_badExit = how;
        return;
    }
    m_death = how;
    Q_EMIT bridgeDied();
}

std::optional<qint64> Route::bridgeRssKb() const
{
    if (!bridgeRunning())
        return std::nullopt;
    QFile status(QStringLiteral("/proc/%1/status").arg(m_bridge.processId()));
    if (!status.open(QIODevice::ReadOnly))
        return std::nullopt;
    // The file is a few kilobytes; VmRSS comes early.
    const QList<QByteArray> lines = status.read(64 * 1024).split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith("VmRSS:")) {
            bool ok = false;
            const qint64 kb = line.mid(6).trimmed().split(' ').value(0).toLongLong(&ok);
            return ok ? std::optional<qint64>(kb) : std::nullopt;
        }
    }
    return std::nullopt;
}

void Route::sampleStartRss()
{
    m_startRssKb = bridgeRssKb();
    m_startRssAtMs = m_clock->elapsed();
}

void Route::sampleEndRss()
{
    m_endRssKb = bridgeRssKb();
    m_endRssAtMs = m_clock->elapsed();
}

void Route::stopGame()
{
    if (m_game)
        m_game->stop();
}

bool Route::clientsDone() const
{
    return std::all_of(m_clients.begin(), m_clients.end(),
                       [](const auto& client) { return client->isDone(); });
}

void Route::forgetOldChanges()
{
    qint64 slowest = m_log.lastIndex();
    for (const auto& client : m_clients) {
        if (client->tally().lost)
            continue;
        if (!client->tally().synced)
            return;
        slowest = std::min(slowest, client->cursor());
    }
    m_log.forgetBefore(slowest - kKeepBehind);
}

void Route::finish()
{
    for (const auto& client : m_clients)
        client->finish();
    m_slowDropped = m_slow && m_slow->isDropped();
    if (m_slow) {
        m_slowDetail = m_slowDropped
                           ? QStringLiteral(" (after %1 s and %2 requests)")
                                 .arg(double(m_slow->droppedAfterMs()) / 1000.0, 0, 'f', 1)
                                 .arg(m_slow->requestsSent())
                           : QStringLiteral(" (%1 requests sent)").arg(m_slow->requestsSent());
    }
    m_slow.reset();
    if (!bridgeRunning())
        return;
    m_stopping = true;
    m_bridge.terminate();
    if (!m_bridge.waitForFinished(kBridgeStopMs)) {
        m_badExit = QStringLiteral("did not end within %1 s of SIGTERM").arg(kBridgeStopMs / 1000);
        m_bridge.kill();
        m_bridge.waitForFinished(kBridgeStopMs);
    }
}

QString Route::report(std::optional<double> maxGrowthMbPerHour, QStringList* failures) const
{
    QStringList parts;
    const auto fail = [&](const QString& why) {
        failures->append(name() + QStringLiteral(": ") + why);
    };

    if (m_startRssKb && m_endRssKb) {
        const double growthMb = double(*m_endRssKb - *m_startRssKb) / 1024.0;
        const double hours = double(m_endRssAtMs - m_startRssAtMs) / 3'600'000.0;
        const double perHour = hours > 0 ? growthMb / hours : 0;
        parts << QStringLiteral("rss start %1 MiB, end %2 MiB, growth %3 MiB (%4 MiB/h%5)")
                     .arg(megabytes(*m_startRssKb), megabytes(*m_endRssKb),
                          signedMegabytes(growthMb), signedMegabytes(perHour),
                          maxGrowthMbPerHour
                              ? QStringLiteral(", limit %1").arg(*maxGrowthMbPerHour, 0, 'f', 1)
                              : QStringLiteral(", not judged on a short run"));
        if (maxGrowthMbPerHour && perHour > *maxGrowthMbPerHour)
            fail(QStringLiteral("memory grew %1 MiB/h").arg(perHour, 0, 'f', 1));
    } else {
        parts << QStringLiteral("rss not read");
        if (maxGrowthMbPerHour)
            fail(QStringLiteral("the bridge's memory could not be read"));
    }

    ClientTally sum;
    int lost = 0;
    int neverSynced = 0;
    int overlong = 0;
    for (const auto& client : m_clients) {
        const ClientTally& tally = client->tally();
        sum.missed += tally.missed;
        sum.outOfOrder += tally.outOfOrder;
        sum.unknown += tally.unknown;
        sum.blank += tally.blank;
        sum.maxDelayMs = std::max(sum.maxDelayMs, tally.maxDelayMs);
        lost += tally.lost ? 1 : 0;
        neverSynced += tally.synced ? 0 : 1;
        overlong += tally.overlong ? 1 : 0;
    }
    QString clients = QStringLiteral("%1 clients: %2 missed, %3 out of order, longest delay %4 ms")
                          .arg(m_clients.size())
                          .arg(sum.missed)
                          .arg(sum.outOfOrder)
                          .arg(sum.maxDelayMs);
    const auto count = [&](qint64 n, const QString& what) {
        if (n == 0)
            return;
        clients += QStringLiteral(", %1 %2").arg(n).arg(what);
        fail(QStringLiteral("%1 %2").arg(n).arg(what));
    };
    if (m_clients.size() < std::size_t(m_settings.clients))
        fail(QStringLiteral("only %1 of %2 clients connected")
                 .arg(m_clients.size())
                 .arg(m_settings.clients));
    if (sum.missed)
        fail(QStringLiteral("%1 changes missed").arg(sum.missed));
    if (sum.outOfOrder)
        fail(QStringLiteral("%1 changes out of order").arg(sum.outOfOrder));
    count(lost, QStringLiteral("clients lost their connection"));
    count(neverSynced, QStringLiteral("clients never received a state"));
    count(overlong, QStringLiteral("clients got an over-long line"));
    count(sum.unknown, QStringLiteral("snapshots matching no state sent"));
    count(sum.blank, QStringLiteral("blank snapshots after the game was followed"));
    parts << clients;
    parts << QStringLiteral("%1 changes sent").arg(m_log.changeCount());

    const bool dropped = m_slowDropped;
    parts << QStringLiteral("slow client dropped: %1%2")
                 .arg(dropped ? QStringLiteral("yes") : QStringLiteral("no"), m_slowDetail);
    if (!dropped)
        fail(m_slowError.isEmpty()
                 ? QStringLiteral("the slow client was not dropped")
                 : QStringLiteral("the slow client could not connect: ") + m_slowError);

    if (m_sharePort == 0)
        fail(QStringLiteral("the bridge never announced its sharing port"));
    if (m_death) {
        parts << QStringLiteral("bridge %1 during the run (its last words: %2)")
                     .arg(*m_death, m_lastErrorLines.join(QStringLiteral(" | ")));
        fail(QStringLiteral("the bridge ") + *m_death);
    } else if (m_badExit) {
        parts << QStringLiteral("bridge %1 when stopped").arg(*m_badExit);
        fail(QStringLiteral("the bridge ") + *m_badExit + QStringLiteral(" when stopped"));
    }
    return QStringLiteral("route %1: %2").arg(name(), parts.join(QStringLiteral("; ")));
}

} // namespace vantorelle::soak
