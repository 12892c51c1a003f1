#include "cloud_relay.h"

#include "usb_link.h"

#include <utility>

namespace vantorelle {

CloudRelay::CloudRelay(UsbLink* link) : QObject(link)
{
    connect(&m_socket, &QTcpSocket::connected, this, &CloudRelay::onConnected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &CloudRelay::onSocketReadyRead);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &CloudRelay::onSocketError);
    connect(&m_socket, &QTcpSocket::disconnected, this, &CloudRelay::onDisconnected);
}

CloudRelay::~CloudRelay()
{
    m_socket.disconnect(this);
    m_socket.abort();
}

UsbLink* CloudRelay::link() const
{
    return static_cast<UsbLink*>(parent());
}

void CloudRelay::setShareConnection(bool on)
{
    if (m_share == on)
        return;
    m_share = on;
    if (!on)
        dropConnection();
    Q_EMIT stateChanged();
}

void CloudRelay::setTunnel(const QString& host, quint16 port)
{
    if (host == m_host && port == m_port)
        return;
    dropConnection();
    m_host = host;
    m_port = port;
    m_error.clear();
    Q_EMIT stateChanged();
}

void CloudRelay::reset()
{
    dropConnection();
    m_host.clear();
    m_port = 0;
    m_error.clear();
    Q_EMIT stateChanged();
}

bool CloudRelay::isConnected() const
{
    return m_socket.state() == QAbstractSocket::ConnectedState;
}

void CloudRelay::fromDevice(const QByteArray& bytes)
{
    if (!isReady())
        return;
    if (isConnected()) {
        m_socket.write(bytes);
        return;
    }
    buffer(bytes);
    if (m_socket.state() == QAbstractSocket::UnconnectedState)
        m_socket.connectToHost(m_host, m_port);
}

void CloudRelay::buffer(const QByteArray& bytes)
{
    const qsizetype room = PendingLimit - m_pending.size();
    if (room > 0)
        m_pending.append(bytes.first(qMin(room, bytes.size())));
}

void CloudRelay::dropConnection()
{
    m_pending.clear();
    // abort() emits disconnected when connected; that is our own doing, not news.
    const QSignalBlocker quiet(m_socket);
    m_socket.abort();
}

void CloudRelay::onConnected()
{
    m_error.clear();
    if (!m_pending.isEmpty())
        m_socket.write(std::exchange(m_pending, {}));
    Q_EMIT stateChanged();
}

void CloudRelay::onSocketReadyRead()
{
    link()->sendRelay(m_socket.readAll());
}

void CloudRelay::onSocketError(QAbstractSocket::SocketError error)
{
    // The cloud ending its side is a normal end, not something to show the user.
    if (error != QAbstractSocket::RemoteHostClosedError)
        m_error = m_socket.errorString();
    dropConnection();
    Q_EMIT stateChanged();
}

void CloudRelay::onDisconnected()
{
    m_pending.clear();
    Q_EMIT stateChanged();
}

} // namespace vantorelle
