#include "sim/game.h"

#include <QDateTime>

#include <algorithm>

namespace vantorelle::sim {

namespace {

constexpr int FinalTicksBeforeRestart = 5;
constexpr int ShotClockSeconds = 24;

} // namespace

Game::Game(QObject* parent) : QObject(parent), m_random(QRandomGenerator::securelySeeded())
{
    m_home.name = QStringLiteral("Harbor Hawks");
    m_away.name = QStringLiteral("Valley Wolves");
    connect(&m_timer, &QTimer::timeout, this, &Game::tick);
    reset();
}

void Game::setSport(Sport sport)
{
    m_sport = sport;
    reset();
}

QString Game::sportName() const
{
    return m_sport == Sport::Hockey ? QStringLiteral("hockey") : QStringLiteral("basketball");
}

void Game::setTeams(const QString& home, const QString& away)
{
    m_home.name = home;
    m_away.name = away;
}

void Game::start(int intervalMs)
{
    m_timer.start(std::max(1, intervalMs));
}

void Game::stop()
{
    m_timer.stop();
}

void Game::reset()
{
    m_home = Team{m_home.name};
    m_away = Team{m_away.name};
    m_period = 1;
    m_clockSeconds = periodSeconds();
    m_shotClock = ShotClockSeconds;
    m_finalTicks = 0;
}

void Game::setScore(int home, int away)
{
    m_home.score = home;
    m_away.score = away;
}

int Game::periods() const
{
    return m_sport == Sport::Hockey ? 3 : 4;
}

int Game::periodSeconds() const
{
    return m_sport == Sport::Hockey ? 20 * 60 : 12 * 60;
}

void Game::tick()
{
    const bool over = m_clockSeconds == 0 && m_period == periods();
    if (over) {
        if (++m_finalTicks >= FinalTicksBeforeRestart)
            reset();
    } else if (m_clockSeconds == 0) {
        ++m_period;
        m_clockSeconds = periodSeconds();
        m_shotClock = ShotClockSeconds;
    } else {
        --m_clockSeconds;
        if (m_sport == Sport::Basketball && --m_shotClock <= 0)
            m_shotClock = ShotClockSeconds;
        play(m_home);
        play(m_away);
    }
    ++m_seq;
    Q_EMIT envelopeReady(envelope());
}

// Rates are livelier than real games so that a demo shows changes within a minute.
void Game::play(Team& team)
{
    if (m_sport == Sport::Hockey) {
        if (m_random.bounded(20) == 0) {
            ++team.shots;
            if (m_random.bounded(8) == 0)
                ++team.score;
        }
        return;
    }
    if (m_random.bounded(60) == 0)
        ++team.fouls;
    if (m_random.bounded(10) == 0) {
        const int roll = m_random.bounded(10);
        team.score += roll == 0 ? 1 : roll < 3 ? 3 : 2;
        m_shotClock = ShotClockSeconds;
    }
}

QString Game::clockText() const
{
    return QStringLiteral("%1:%2")
        .arg(m_clockSeconds / 60)
        .arg(m_clockSeconds % 60, 2, 10, QLatin1Char('0'));
}

QJsonObject Game::fields() const
{
    QJsonObject fields{
        {QStringLiteral("home_name"), m_home.name},
        {QStringLiteral("away_name"), m_away.name},
        {QStringLiteral("home_score"), m_home.score},
        {QStringLiteral("away_score"), m_away.score},
        {QStringLiteral("period"), m_period},
        {QStringLiteral("clock"), clockText()},
        {QStringLiteral("clock_running"), m_clockSeconds > 0},
    };
    if (m_sport == Sport::Hockey) {
        fields.insert(QStringLiteral("home_shots"), m_home.shots);
        fields.insert(QStringLiteral("away_shots"), m_away.shots);
    } else {
        fields.insert(QStringLiteral("home_fouls"), m_home.fouls);
        fields.insert(QStringLiteral("away_fouls"), m_away.fouls);
        fields.insert(QStringLiteral("shot_clock"), m_shotClock);
    }
    return fields;
}

QJsonObject Game::envelope() const
{
    return {
        {QStringLiteral("type"), QStringLiteral("state")},
        {QStringLiteral("v"), 1},
        {QStringLiteral("sport"), sportName()},
        {QStringLiteral("fields"), fields()},
        {QStringLiteral("seq"), m_seq},
        {QStringLiteral("ts_ms"), QDateTime::currentMSecsSinceEpoch()},
        {QStringLiteral("online"), true},
    };
}

} // namespace vantorelle::sim
