#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QSslConfiguration>
#include <QString>
#include <QTcpServer>

#include <optional>

class QSslSocket;

namespace vantorelle::sim {

// The device's live feed on 127.0.0.1: a TLS server whose clients authenticate with the first
// line they send and then receive one JSON envelope per line. A test can make it answer
// anything, split or join lines, revoke access, hang up and refuse new connections.
class FeedServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit FeedServer(QObject* parent = nullptr);
    ~FeedServer() override;

    // Listens on 127.0.0.1; port 0 lets the system choose (see serverPort()).
    bool start(quint16 port = 0);

    // A first line carrying this token is answered {"type":"auth_ok"}, any other
    // {"type":"auth_fail"}.
    void setExpectedToken(const QString& token) { m_expectedToken = token; }
    // Answers every first line with `reply` instead, whatever its token; std::nullopt restores
    // the token check.
    void setFirstReply(const std::optional<QJsonObject>& reply) { m_firstReply = reply; }
    // Leaves first lines unanswered, so clients wait for their answer.
    void setSilent(bool silent) { m_silent = silent; }

    // Sends `envelope` as one line to every authenticated client.
    void broadcast(const QJsonObject& envelope);
    // Writes `bytes` as they are to every authenticated client.
    void writeRaw(const QByteArray& bytes);
    // Tells every authenticated client {"type":"auth_fail"}.
    void revokeAccess();
    // Hangs up on every client.
    void dropConnections();

    // Connections accepted since construction.
    int connectionCount() const { return m_connectionCount; }
    int authenticatedCount() const;
    int clientCount() const { return int(m_clients.size()); }
    // Every first line received, with its line ending.
    const QList<QByteArray>& authLines() const { return m_authLines; }

Q_SIGNALS:
    void authLineReceived(const QByteArray& line);
    void clientAuthenticated();
    void clientDisconnected();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Client
    {
        QSslSocket* socket = nullptr;
        QByteArray buffer;
        bool answered = false;
        bool authenticated = false;
    };

    Client* find(QSslSocket* socket);
    void readFrom(QSslSocket* socket);
    void answer(Client& client, const QByteArray& line);
    void remove(QSslSocket* socket);
    void writeToAuthenticated(const QByteArray& bytes);

    QSslConfiguration m_tls;
    QString m_expectedToken;
    std::optional<QJsonObject> m_firstReply;
    bool m_silent = false;
    QList<Client> m_clients;
    int m_connectionCount = 0;
    QList<QByteArray> m_authLines;
};

} // namespace vantorelle::sim
