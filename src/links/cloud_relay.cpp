#include "cloud_relay.h"

#include "socket_keepalive.h"
#include "usb_link.h"

#include <utility>

namespace vantorelle {

CloudRelay::CloudRelay(UsbLink* link) : QObject(link)
{
    // Without a limit Qt would keep reading the socket into memory while the device's queue is
    // full; with one, TCP itself holds the cloud back.
    m_socket.setReadBufferSize(ReadBufferBytes);
    connect(&m_socket, &QTcpSocket::connected, this, &CloudRelay::onConnected);
    connect(&m_socket, &QTcpSocket::readyRead, this, &CloudRelay::onSocketReadyRead);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &CloudRelay::onSocketError);
    connect(&m_socket, &QTcpSocket::disconnected, this, &CloudRelay::onDisconnected);
    connect(link, &UsbLink::relayQueueLow, this, &CloudRelay::forwardToDevice);
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &CloudRelay::connectNow);
}

void CloudRelay::setRetryDelays(int firstMs, int maxMs)
{
    m_firstRetryMs = firstMs;
    m_maxRetryMs = maxMs;
    m_retryMs = firstMs;
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
    // After a failure the retry timer makes the next attempt; until then bytes only wait.
    if (!m_retryTimer.isActive())
        connectNow();
}

void CloudRelay::connectNow()
{
    if (isReady() && m_socket.state() == QAbstractSocket::UnconnectedState)
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
    m_retryTimer.stop();
    m_retryMs = m_firstRetryMs;
    closeSocket();
}

void CloudRelay::closeSocket()
{
    // abort() emits disconnected when connected; that is our own doing, not news.
    const QSignalBlocker quiet(m_socket);
    m_socket.abort();
}

void CloudRelay::onConnected()
{
    m_error.clear();
    m_retryMs = m_firstRetryMs;
    enableKeepAlive(&m_socket);
    if (!m_pending.isEmpty())
        m_socket.write(std::exchange(m_pending, {}));
    Q_EMIT stateChanged();
}

void CloudRelay::onSocketReadyRead()
{
    forwardToDevice();
}

// The serial line is far slower than the internet: read from the cloud only while the device's
// queue has room, and let TCP hold the sender back meanwhile, rather than overflow the queue.
void CloudRelay::forwardToDevice()
{
    UsbLink* usb = link();
    const qsizetype half = UsbLink::RelayQueueLimit / 2;
    while (usb->relayQueueSize() <= half && m_socket.bytesAvailable() > 0) {
        const qsizetype room = (half + 1 - usb->relayQueueSize()) * UsbLink::RelayPieceBytes;
        usb->sendRelay(m_socket.read(room));
    }
}

void CloudRelay::onSocketError(QAbstractSocket::SocketError error)
{
    // The cloud ending its side is a normal end, not something to show the user.
    if (error != QAbstractSocket::RemoteHostClosedError)
        m_error = m_socket.errorString();
    const bool neverConnected = m_socket.state() != QAbstractSocket::ConnectedState &&
                                error != QAbstractSocket::RemoteHostClosedError;
    if (neverConnected) {
        // Keep what the device sent and try again after a growing wait.
        closeSocket();
        m_retryTimer.start(m_retryMs);
        m_retryMs = qMin(m_retryMs * 2, m_maxRetryMs);
    } else {
        dropConnection();
    }
    Q_EMIT stateChanged();
}

void CloudRelay::onDisconnected()
{
    m_pending.clear();
    Q_EMIT stateChanged();
}

} // namespace vantorelle
