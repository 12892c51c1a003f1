#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>

#include <functional>

class QTcpSocket;

namespace vantorelle {

class LiveData;

// Shares the live data with other programs: a TCP server speaking one compact JSON object per
// line. Every client gets the snapshot on connect and after every change, and may send requests
// ("get", or operations answered by the installed handler).
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

    explicit HostedServer(LiveData* live, QObject* parent = nullptr);
    ~HostedServer() override;

    bool start(quint16 port, bool allowNetwork, QString* errorText = nullptr);
    void stop();
    void broadcast();
    void setHandler(Handler handler) { m_handler = std::move(handler); }
    // Replaces how the snapshot is built; by default it is the live data's own snapshot line.
    void setSnapshot(Snapshot snapshot) { m_snapshot = std::move(snapshot); }
    void setMaxOutputBytes(qint64 bytes) { m_maxOutputBytes = bytes; }

    int clientCount() const { return int(m_clients.size()); }
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
    void acceptConnections();
    void receive(QTcpSocket* client);
    void dropClient(QTcpSocket* client);
    void send(QTcpSocket* client, const QByteArray& bytes);
    QByteArray snapshotLine() const;

    QPointer<LiveData> m_live;
    QTcpServer m_server;
    QList<QTcpSocket*> m_clients;
    QHash<QTcpSocket*, QByteArray> m_buffers;
    Handler m_handler;
    Snapshot m_snapshot;
    QString m_lastError;
    qint64 m_maxOutputBytes = DefaultMaxOutputBytes;
};

} // namespace vantorelle
