#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTimer>

#include <functional>

class QTcpSocket;

namespace vantorelle {

class LiveData;

// Shares the live data with other programs: a TCP server speaking one compact JSON object per
// line. Every client gets the snapshot on connect and after every change, and may send requests
// ("get", or operations answered by the installed handler). A connection that opens with an HTTP
// request line is answered as HTTP instead (see http_answer.h): the snapshot as JSON, XML or one
// field's text, an event stream of snapshots, and a scorebug page that follows that stream.
class HostedServer : public QObject
{
    Q_OBJECT

public:
    // Answers one operation: name and the whole request object in, reply object out.
    using Handler = std::function<QJsonObject(const QString& op, const QJsonObject& request)>;
    // Builds the snapshot message (one compact JSON object ending in "\n").
    using Snapshot = std::function<QByteArray()>;

    // Pending bytes a client may have without a line end before it is dropped.
    static constexpr qsizetype MaxPendingBytes = 65536;
    // Output a client may leave unread before it is dropped; the others go on.
    static constexpr qint64 DefaultMaxOutputBytes = 1024 * 1024;
    // How long a new connection has to show it speaks HTTP before it is greeted as a line client.
    // An HTTP client sends its request at once; a line client waits for its greeting this long.
    // A browser, though, may open a spare connection and send a request on it only seconds later:
    // by then it has been greeted, and that request fails. A server for browsers is best made
    // HTTP-only (setHttpOnly) on a port of its own.
    static constexpr int DefaultGreetingDelayMs = 200;
    // How often a quiet event stream gets a comment, so that proxies keep it open.
    static constexpr int DefaultKeepAliveMs = 15000;

    explicit HostedServer(LiveData* live, QObject* parent = nullptr);
    ~HostedServer() override;

    bool start(quint16 port, bool allowNetwork, QString* errorText = nullptr);
    void stop();
    void broadcast();
    void setHandler(Handler handler) { m_handler = std::move(handler); }
    // Replaces how the snapshot is built; by default it is the live data's own snapshot line.
    void setSnapshot(Snapshot snapshot) { m_snapshot = std::move(snapshot); }
    void setMaxOutputBytes(qint64 bytes) { m_maxOutputBytes = bytes; }
    void setGreetingDelay(int ms) { m_greetingDelayMs = ms; }
    // Speaks HTTP alone: no greeting, no line protocol; a connection that does not open with a
    // request line is dropped. Set before start().
    void setHttpOnly(bool httpOnly) { m_httpOnly = httpOnly; }
    void setKeepAliveInterval(int ms);

    // Clients that follow the data: line clients and event streams (not one-off HTTP requests).
    int clientCount() const;
    bool isListening() const { return m_server.isListening(); }
    // The port actually listened on (the chosen one when port 0 was asked for); 0 when stopped.
    quint16 serverPort() const { return m_server.isListening() ? m_server.serverPort() : 0; }
    // The sentence of the last failed start; empty after a successful one.
    QString lastError() const { return m_lastError; }

    // What the server answers to one received line (without its "\n"): the reply message, or
    // an empty array when the line gets no reply. The snapshot is built only for "get".
    static QByteArray replyTo(const QByteArray& line, const Snapshot& snapshot,
                              const Handler& handler);

Q_SIGNALS:
    void clientsChanged(int count);

private:
    enum class Mode
    {
        Opening,  // nothing shows yet which protocol it speaks
        Lines,    // a line client
        Request,  // an HTTP request whose head is still coming
        Answered, // an HTTP answer went out; the connection closes
        Events    // an HTTP event stream
    };
    struct Connection
    {
        Mode mode = Mode::Opening;
        QByteArray buffer;
    };

    void acceptConnections();
    void receive(QTcpSocket* client);
    void receiveLines(QTcpSocket* client);
    void answerRequest(QTcpSocket* client);
    void greet(QTcpSocket* client);
    void dropClient(QTcpSocket* client);
    void send(QTcpSocket* client, const QByteArray& bytes);
    void keepAlive();
    QByteArray snapshotLine() const;
    static bool follows(Mode mode) { return mode == Mode::Lines || mode == Mode::Events; }

    QPointer<LiveData> m_live;
    QTcpServer m_server;
    QList<QTcpSocket*> m_clients; // every connection, in the order they came
    QHash<QTcpSocket*, Connection> m_connections;
    Handler m_handler;
    Snapshot m_snapshot;
    QString m_lastError;
    qint64 m_maxOutputBytes = DefaultMaxOutputBytes;
    int m_greetingDelayMs = DefaultGreetingDelayMs;
    bool m_httpOnly = false;
    QTimer m_keepAlive;
};

} // namespace vantorelle
