#pragma once

#include <QJsonObject>
#include <QObject>
#include <QRandomGenerator>
#include <QString>
#include <QTimer>

namespace vantorelle::sim {

// A simulated hockey or basketball game: a clock that counts down one game second per tick,
// periods, scores and a few sport-specific counts. Every tick produces one live-data envelope
// ("type" "state", "sport", "fields", "seq", "ts_ms"). Knows nothing of any link, so
// the USB and the network simulators share it.
class Game : public QObject
{
    Q_OBJECT

public:
    enum class Sport
    {
        Hockey,
        Basketball
    };

    explicit Game(QObject* parent = nullptr);

    void setSport(Sport sport); // also resets the game
    Sport sport() const { return m_sport; }
    QString sportName() const; // "hockey" or "basketball"
    // Fixes the random sequence so that a run can be repeated.
    void setSeed(quint32 seed) { m_random.seed(seed); }
    void setTeams(const QString& home, const QString& away);

    // Ticks every `intervalMs` (at least 1) until stop(); each tick emits envelopeReady.
    void start(int intervalMs);
    void stop();
    bool isRunning() const { return m_timer.isActive(); }

    // One game second: runs the clock, may score, advances the period at its end, starts a new
    // game a few ticks after the final horn. Emits envelopeReady.
    void tick();
    // Back to the opening face-off / tip-off.
    void reset();

    // Scores can be set by hand (tests, the demo); the next envelope carries them.
    void setScore(int home, int away);
    int homeScore() const { return m_home.score; }
    int awayScore() const { return m_away.score; }
    int period() const { return m_period; }
    int clockSeconds() const { return m_clockSeconds; }
    qint64 seq() const { return m_seq; }

    // The scoreboard's fields (numbers as JSON numbers, the clock as text).
    QJsonObject fields() const;
    // The current state as an envelope, with the last sequence number sent.
    QJsonObject envelope() const;

Q_SIGNALS:
    void envelopeReady(const QJsonObject& envelope);

private:
    struct Team
    {
        QString name;
        int score = 0;
        int shots = 0; // hockey
        int fouls = 0; // basketball
    };

    int periods() const;
    int periodSeconds() const;
    void play(Team& team);
    QString clockText() const;

    Sport m_sport = Sport::Hockey;
    Team m_home;
    Team m_away;
    int m_period = 1;
    int m_clockSeconds = 0;
    int m_shotClock = 24;
    int m_finalTicks = 0; // ticks since the final horn
    qint64 m_seq = 0;
    QRandomGenerator m_random;
    QTimer m_timer;
};

} // namespace vantorelle::sim
