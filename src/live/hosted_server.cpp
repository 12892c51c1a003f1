#include "hosted_server.h"

#include "http_answer.h"
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
    m_keepAlive.setInterval(DefaultKeepAliveMs);
    connect(&m_keepAlive, &QTimer::timeout, this, &HostedServer::keepAlive);
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
    m_keepAlive.start();
    return true;
}

void HostedServer::setKeepAliveInterval(int ms)
{
    m_keepAlive.setInterval(ms);
}

int HostedServer::clientCount() const
{
    int count = 0;
    for (const Connection& connection : m_connections)
        count += follows(connection.mode);
    return count;
}

void HostedServer::stop()
{
    const QList<QTcpSocket*> clients = std::exchange(m_clients, {});
    m_connections.clear();
    m_keepAlive.stop();
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
        m_connections.insert(client, {});
        connect(client, &QTcpSocket::readyRead, this, [this, client] { receive(client); });
        connect(client, &QTcpSocket::disconnected, this, [this, client] { dropClient(client); });
        if (m_httpOnly)
            continue;
        // A connection that has said nothing by then is a line client waiting for its greeting.
        QTimer::singleShot(m_greetingDelayMs, client, [this, client] {
            const auto it = m_connections.constFind(client);
            if (it != m_connections.constEnd() && it->mode == Mode::Opening && it->buffer.isEmpty())
                greet(client);
        });
    }
}

void HostedServer::greet(QTcpSocket* client)
{
    m_connections[client].mode = Mode::Lines;
    Q_EMIT clientsChanged(clientCount());
    send(client, snapshotLine());
}

void HostedServer::broadcast()
{
    if (clientCount() == 0)
        return;
    const QByteArray line = snapshotLine();
    const QByteArray event = http::eventMessage(line);
    // A copy: a client over its output cap leaves the list on the way.
    const QList<QTcpSocket*> clients = m_clients;
    for (QTcpSocket* client : clients) {
        const auto it = m_connections.constFind(client);
        if (it == m_connections.constEnd())
            continue;
        if (it->mode == Mode::Lines)
            send(client, line);
        else if (it->mode == Mode::Events)
            send(client, event);
    }
}

void HostedServer::keepAlive()
{
    const QList<QTcpSocket*> clients = m_clients;
    for (QTcpSocket* client : clients) {
        const auto it = m_connections.constFind(client);
        if (it != m_connections.constEnd() && it->mode == Mode::Events)
            send(client, http::keepAliveComment());
    }
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
    const auto it = m_connections.find(client);
    if (it == m_connections.end())
        return;
    if (it->mode == Mode::Answered || it->mode == Mode::Events) {
        client->readAll(); // nothing more is asked of an HTTP connection
        return;
    }
    it->buffer.append(client->readAll());
    if (it->mode == Mode::Opening) {
        switch (http::classifyOpening(it->buffer)) {
        case http::Opening::Undecided:
            // Only a request line grows this long without a line end: one too long for us.
            if (it->buffer.size() > http::MaxRequestHeadBytes)
                client->abort();
            return;
        case http::Opening::Request:
            it->mode = Mode::Request;
            break;
        case http::Opening::Other:
            if (m_httpOnly) {
                client->abort();
                return;
            }
            greet(client);
            break;
        }
    }
    const auto now = m_connections.constFind(client); // the greeting may have dropped it
    if (now == m_connections.constEnd())
        return;
    if (now->mode == Mode::Request)
        answerRequest(client);
    else
        receiveLines(client);
}

void HostedServer::answerRequest(QTcpSocket* client)
{
    Connection& connection = m_connections[client];
    http::Request request;
    switch (http::readRequestHead(connection.buffer, &request)) {
    case http::HeadState::Incomplete:
        return;
    case http::HeadState::TooLarge:
        client->abort();
        return;
    case http::HeadState::Complete:
        break;
    }
    connection.buffer.clear();
    const http::Answer answer = http::answer(request, [this] { return snapshotLine(); });
    connection.mode = answer.events ? Mode::Events : Mode::Answered;
    send(client, answer.bytes);
    if (!m_connections.contains(client))
        return;
    if (answer.events) {
        Q_EMIT clientsChanged(clientCount());
    } else {
        // Without keep-alive the end of the answer is the end of the connection; the disconnect
        // notification removes it once the answer has gone out.
        client->disconnectFromHost();
    }
}

void HostedServer::receiveLines(QTcpSocket* client)
{
    auto buffer = m_connections.find(client);
    if (buffer == m_connections.end())
        return;
    if (buffer->buffer.size() > MaxPendingBytes) {
        // Nothing of an over-long buffer is answered; the disconnect notification removes it.
        client->abort();
        return;
    }
    qsizetype end;
    const Snapshot snapshot = [this] { return snapshotLine(); };
    while ((end = buffer->buffer.indexOf('\n')) >= 0) {
        const QByteArray line = buffer->buffer.left(end);
        buffer->buffer.remove(0, end + 1);
        const QByteArray reply = replyTo(line, snapshot, m_handler);
        // A handler may have stopped the server, which drops every client and its buffer.
        buffer = m_connections.find(client);
        if (buffer == m_connections.end())
            return;
        if (!reply.isEmpty())
            send(client, reply);
        buffer = m_connections.find(client);
        if (buffer == m_connections.end())
            return;
    }
}

void HostedServer::dropClient(QTcpSocket* client)
{
    if (!m_clients.removeOne(client))
        return;
    const bool followed = follows(m_connections.take(client).mode);
    client->deleteLater();
    if (followed)
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
