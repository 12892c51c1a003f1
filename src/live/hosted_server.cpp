#include "hosted_server.h"

#include "live_data.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QTcpSocket>

namespace vantorelle {

namespace {

QByteArray message(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray failure(const char* error)
{
    return message(
        {{QStringLiteral("ok"), false}, {QStringLiteral("error"), QLatin1String(error)}});
}

} // namespace

HostedServer::HostedServer(LiveData* live, QObject* parent) : QObject(parent), m_live(live)
{
    connect(&m_server, &QTcpServer::newConnection, this, &HostedServer::acceptConnections);
}

HostedServer::~HostedServer()
{
    // Sockets are closed quietly here: nobody listens to our signals any more.
    for (QTcpSocket* client : std::as_const(m_clients)) {
        client->disconnect(this);
        client->abort();
        delete client;
    }
}

bool HostedServer::start(quint16 port, bool allowNetwork, QString* errorText)
{
    stop();
    const QHostAddress address =
        allowNetwork ? QHostAddress(QHostAddress::Any) : QHostAddress(QHostAddress::LocalHost);
    if (!m_server.listen(address, port)) {
        m_lastError =
            QStringLiteral("Could not listen on port %1: %2").arg(port).arg(m_server.errorString());
        if (errorText)
            *errorText = m_lastError;
        return false;
    }
    m_lastError.clear();
    return true;
}

void HostedServer::stop()
{
    const QList<QTcpSocket*> clients = std::exchange(m_clients, {});
    m_buffers.clear();
    for (QTcpSocket* client : clients) {
        client->disconnect(this);
        client->close();
        client->deleteLater();
    }
    if (m_server.isListening())
        m_server.close();
    Q_EMIT clientsChanged(0);
}

void HostedServer::acceptConnections()
{
    while (QTcpSocket* client = m_server.nextPendingConnection()) {
        m_clients.append(client);
        m_buffers.insert(client, {});
        connect(client, &QTcpSocket::readyRead, this, [this, client] { receive(client); });
        connect(client, &QTcpSocket::disconnected, this, [this, client] { dropClient(client); });
        Q_EMIT clientsChanged(clientCount());
        send(client, snapshotLine());
    }
}

void HostedServer::broadcast()
{
    if (m_clients.isEmpty())
        return;
    const QByteArray line = snapshotLine();
    // A copy: a client over its output cap leaves the list on the way.
    const QList<QTcpSocket*> clients = m_clients;
    for (QTcpSocket* client : clients)
        send(client, line);
}

// A client that does not read its lines would make OBS hold them for ever.
void HostedServer::send(QTcpSocket* client, const QByteArray& bytes)
{
    if (client->bytesToWrite() + bytes.size() > m_maxOutputBytes) {
        dropClient(client);
        client->abort();
        return;
    }
    client->write(bytes);
}

void HostedServer::receive(QTcpSocket* client)
{
    auto buffer = m_buffers.find(client);
    if (buffer == m_buffers.end())
        return;
    buffer->append(client->readAll());
    if (buffer->size() > MaxPendingBytes) {
        // Nothing of an over-long buffer is answered; the disconnect notification removes it.
        client->abort();
        return;
    }
    qsizetype end;
    const Snapshot snapshot = [this] { return snapshotLine(); };
    while ((end = buffer->indexOf('\n')) >= 0) {
        const QByteArray line = buffer->left(end);
        buffer->remove(0, end + 1);
        const QByteArray reply = replyTo(line, snapshot, m_handler);
        // A handler may have stopped the server, which drops every client and its buffer.
        buffer = m_buffers.find(client);
        if (buffer == m_buffers.end())
            return;
        if (!reply.isEmpty())
            send(client, reply);
        buffer = m_buffers.find(client);
        if (buffer == m_buffers.end())
            return;
    }
}

void HostedServer::dropClient(QTcpSocket* client)
{
    if (!m_clients.removeOne(client))
        return;
    m_buffers.remove(client);
    client->deleteLater();
    Q_EMIT clientsChanged(clientCount());
}

QByteArray HostedServer::snapshotLine() const
{
    if (m_snapshot)
        return m_snapshot();
    return m_live ? m_live->toJsonLine() : QByteArray();
}

QByteArray HostedServer::replyTo(const QByteArray& rawLine, const Snapshot& snapshot,
                                 const Handler& handler)
{
    const QByteArray line = rawLine.trimmed();
    if (line.isEmpty())
        return {};
    QString op;
    QJsonObject request;
    if (!line.startsWith('{')) {
        op = QString::fromUtf8(line).trimmed();
    } else {
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
        if (error.error != QJsonParseError::NoError || !doc.isObject())
            return failure("invalid_json");
        request = doc.object();
        op = request.value(QLatin1String("op")).toString();
    }

    if (op == QLatin1String("get"))
        return snapshot ? snapshot() : QByteArray();
    if (!handler)
        return failure("unavailable");
    QJsonObject reply = handler(op, request);
    if (!reply.contains(QLatin1String("ok")))
        reply.insert(QStringLiteral("ok"), true);
    reply.insert(QStringLiteral("op"), op);
    return message(reply);
}

} // namespace vantorelle
