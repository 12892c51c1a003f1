#include "feed_server.h"

#include "feed_certificate.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>

#include <algorithm>
#include <utility>

namespace vantorelle::sim {

namespace {

QByteArray line(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonObject typed(const char* type)
{
    return {{QStringLiteral("type"), QString::fromLatin1(type)}};
}

} // namespace

FeedServer::FeedServer(QObject* parent) : QTcpServer(parent)
{
    m_tls = QSslConfiguration::defaultConfiguration();
    m_tls.setLocalCertificate(QSslCertificate(QByteArray(kFeedCertificatePem), QSsl::Pem));
    m_tls.setPrivateKey(
        QSslKey(QByteArray(kFeedPrivateKeyPem), QSsl::Ec, QSsl::Pem, QSsl::PrivateKey));
    m_tls.setPeerVerifyMode(QSslSocket::VerifyNone);
}

FeedServer::~FeedServer()
{
    for (const Client& client : std::as_const(m_clients))
        client.socket->disconnect(this);
}

bool FeedServer::start(quint16 port)
{
    return listen(QHostAddress(QHostAddress::LocalHost), port);
}

int FeedServer::authenticatedCount() const
{
    return int(std::count_if(m_clients.cbegin(), m_clients.cend(),
                             [](const Client& client) { return client.authenticated; }));
}

void FeedServer::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    ++m_connectionCount;
    Client client;
    client.socket = socket;
    m_clients.append(client);
    socket->setSslConfiguration(m_tls);
    connect(socket, &QSslSocket::readyRead, this, [this, socket] { readFrom(socket); });
    connect(socket, &QSslSocket::disconnected, this, [this, socket] { remove(socket); });
    connect(socket, &QSslSocket::errorOccurred, this, [this, socket] {
        if (socket->state() == QAbstractSocket::UnconnectedState)
            remove(socket);
    });
    socket->startServerEncryption();
}

FeedServer::Client* FeedServer::find(QSslSocket* socket)
{
    for (Client& client : m_clients) {
        if (client.socket == socket)
            return &client;
    }
    return nullptr;
}

// Only the first line matters; whatever a client sends after it is read and ignored.
void FeedServer::readFrom(QSslSocket* socket)
{
    Client* client = find(socket);
    if (!client)
        return;
    client->buffer.append(socket->readAll());
    if (client->answered)
        return;
    const qsizetype newline = client->buffer.indexOf('\n');
    if (newline < 0)
        return;
    const QByteArray first = client->buffer.left(newline + 1);
    client->buffer.clear();
    client->answered = true;
    m_authLines.append(first);
    Q_EMIT authLineReceived(first);
    answer(*client, first);
}

void FeedServer::answer(Client& client, const QByteArray& first)
{
    if (m_silent)
        return;
    if (m_firstReply) {
        client.socket->write(line(*m_firstReply));
        return;
    }
    const QJsonObject auth = QJsonDocument::fromJson(first.trimmed()).object();
    const bool accepted = auth.value(QLatin1String("type")) == QLatin1String("auth") &&
                          auth.value(QLatin1String("token")) == m_expectedToken;
    client.socket->write(line(typed(accepted ? "auth_ok" : "auth_fail")));
    if (accepted) {
        client.authenticated = true;
        Q_EMIT clientAuthenticated();
    }
}

void FeedServer::broadcast(const QJsonObject& envelope)
{
    writeToAuthenticated(line(envelope));
}

void FeedServer::writeRaw(const QByteArray& bytes)
{
    writeToAuthenticated(bytes);
}

void FeedServer::revokeAccess()
{
    writeToAuthenticated(line(typed("auth_fail")));
    for (Client& client : m_clients)
        client.authenticated = false;
}

void FeedServer::writeToAuthenticated(const QByteArray& bytes)
{
    for (const Client& client : std::as_const(m_clients)) {
        if (client.authenticated)
            client.socket->write(bytes);
    }
}

void FeedServer::dropConnections()
{
    const QList<Client> clients = m_clients;
    m_clients.clear();
    for (const Client& client : clients) {
        client.socket->disconnect(this);
        client.socket->abort();
        client.socket->deleteLater();
        Q_EMIT clientDisconnected();
    }
}

void FeedServer::remove(QSslSocket* socket)
{
    if (!find(socket))
        return;
    m_clients.removeIf([socket](const Client& client) { return client.socket == socket; });
    socket->disconnect(this);
    socket->deleteLater();
    Q_EMIT clientDisconnected();
}

} // namespace vantorelle::sim
