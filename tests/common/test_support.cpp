#include "test_support.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkInterface>
#include <QTcpServer>
#include <QTest>

namespace vantorelle::test {

bool LineClient::connectTo(const QString& host, quint16 port, int timeoutMs)
{
    m_socket->connectToHost(host, port);
    return m_socket->waitForConnected(timeoutMs);
}

void LineClient::send(const QByteArray& bytes)
{
    m_socket->write(bytes);
    m_socket->flush();
}

QByteArray LineClient::readLine(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (true) {
        m_pending.append(m_socket->readAll());
        const qsizetype end = m_pending.indexOf('\n');
        if (end >= 0) {
            const QByteArray line = m_pending.left(end);
            m_pending.remove(0, end + 1);
            return line;
        }
        if (deadline.hasExpired() || m_socket->state() != QAbstractSocket::ConnectedState)
            return {};
        // Keep the event loop turning: the server under test usually lives in this thread.
        QTest::qWait(5);
    }
}

QJsonObject LineClient::readObject(int timeoutMs)
{
    return QJsonDocument::fromJson(readLine(timeoutMs)).object();
}

bool LineClient::waitForClose(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (m_socket->state() != QAbstractSocket::UnconnectedState) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(5);
    }
    return true;
}

bool canConnect(const QString& host, quint16 port, int timeoutMs)
{
    QTcpSocket socket;
    socket.connectToHost(host, port);
    return socket.waitForConnected(timeoutMs);
}

QString nonLoopbackAddress()
{
    QString ipv6;
    for (const QHostAddress& address : QNetworkInterface::allAddresses()) {
        if (address.isLoopback() || address.isLinkLocal())
            continue;
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            return address.toString();
        if (ipv6.isEmpty() && address.protocol() == QAbstractSocket::IPv6Protocol)
            ipv6 = address.toString();
    }
    return ipv6;
}

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

} // namespace vantorelle::test
