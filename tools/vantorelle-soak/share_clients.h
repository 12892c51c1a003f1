#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

namespace vantorelle::soak {

class StateLog;

// What one reading client saw.
struct ClientTally
{
    qint64 received = 0;   // changes received in order
    qint64 missed = 0;     // changes sent after its first one that never reached it
    qint64 outOfOrder = 0; // an older state after a newer one
    qint64 unknown = 0;    // snapshots matching no state the device sent (or long forgotten)
    qint64 blank = 0;      // snapshots without the game's fields, once it had followed the game
    qint64 maxDelayMs = 0; // longest time from the device sending a change to its arrival here
    bool synced = false;   // it received at least one state of the game
    bool lost = false;     // the server closed its connection
    bool overlong = false; // a line over the cap
};

// A sharing-server client that reads every snapshot line and checks it against the states the
// device sent: each change after the first it received must arrive, in order.
class ReadingClient : public QObject
{
    Q_OBJECT

public:
    // Sharing-server lines are a few hundred bytes; a longer one means something went wrong.
    static constexpr qsizetype MaxLineBytes = 64 * 1024;

    ReadingClient(const StateLog* log, const QElapsedTimer* clock, QObject* parent = nullptr);

    void connectTo(quint16 port);
    // The last change received in order; -1 before the first.
    qint64 cursor() const { return m_cursor; }
    // Has the latest change, or will get nothing more.
    bool isDone() const;
    // Counts the changes it never got up to the last one sent, and hangs up.
    void finish();
    const ClientTally& tally() const { return m_tally; }

private:
    void readLines();
    void handle(const QByteArray& line);
    void onDisconnected();

    const StateLog* m_log;
    const QElapsedTimer* m_clock;
    QTcpSocket m_socket;
    QByteArray m_buffer;
    qint64 m_cursor = -1;
    bool m_finished = false;
    ClientTally m_tally;
};

// A sharing-server client that never reads, as a hung program would leave its socket, and keeps
// asking for the snapshot so that unread output piles up within seconds rather than hours. The
// server must drop it once that output passes its cap, and the other clients must not notice.
class SlowClient : public QObject
{
    Q_OBJECT

public:
    // Requests sent each round, and in all: at most a few tens of megabytes of replies, far
    // beyond any cap the server should have.
    static constexpr int RequestsPerRound = 512;
    static constexpr qint64 MaxRequests = 128 * 1024;

    explicit SlowClient(QObject* parent = nullptr);
    ~SlowClient() override;

    // Connects to 127.0.0.1 at `port`; false with the reason when that fails.
    bool connectTo(quint16 port, QString* error);
    bool isDropped() const { return m_dropped; }
    qint64 requestsSent() const { return m_sent; }
    // Milliseconds from connecting to noticing the drop.
    qint64 droppedAfterMs() const { return m_droppedAfterMs; }

private:
    void round();

    int m_fd = -1;
    QTimer m_timer;
    qint64 m_sent = 0;
    bool m_dropped = false;
    QElapsedTimer m_since;
    qint64 m_droppedAfterMs = -1;
};

} // namespace vantorelle::soak
