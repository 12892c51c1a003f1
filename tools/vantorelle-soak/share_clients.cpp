#include "share_clients.h"

#include "state_log.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vantorelle::soak {

namespace {

// How often the slow client asks again (and looks whether it was dropped).
constexpr int kSlowRoundMs = 50;
// Its kernel receive buffer: small, so that the server's own buffer fills instead.
constexpr int kSlowReceiveBuffer = 4096;

} // namespace

ReadingClient::ReadingClient(const StateLog* log, const QElapsedTimer* clock, QObject* parent)
    : QObject(parent), m_log(log), m_clock(clock)
{
    // Qt reads ahead of the lines taken out; this bounds what it holds for us.
    m_socket.setReadBufferSize(4 * MaxLineBytes);
    connect(&m_socket, &QTcpSocket::readyRead, this, &ReadingClient::readLines);
    connect(&m_socket, &QTcpSocket::disconnected, this, &ReadingClient::onDisconnected);
    connect(&m_socket, &QTcpSocket::errorOccurred, this, &ReadingClient::onDisconnected);
}

void ReadingClient::connectTo(quint16 port)
{
    m_socket.connectToHost(QHostAddress::LocalHost, port);
}

bool ReadingClient::isDone() const
{
    return m_finished || m_tally.lost || (m_tally.synced && m_cursor >= m_log->lastIndex());
}

void ReadingClient::readLines()
{
    while (m_socket.bytesAvailable() > 0) {
        m_buffer.append(m_socket.read(4 * MaxLineBytes));
        qsizetype start = 0;
        qsizetype end;
        while ((end = m_buffer.indexOf('\n', start)) >= 0) {
            handle(m_buffer.mid(start, end - start));
            start = end + 1;
        }
        m_buffer.remove(0, start);
        if (m_buffer.size() > MaxLineBytes) {
            m_tally.overlong = true;
            m_buffer.clear();
            m_socket.abort();
            return;
        }
    }
}

void ReadingClient::handle(const QByteArray& line)
{
    const QJsonObject snapshot = QJsonDocument::fromJson(line).object();
    const QString key = m_log->snapshotKey(snapshot);
    if (key.isEmpty()) {
        // Before the bridge follows the device its snapshot is empty; later it must not be.
        if (m_tally.synced)
            ++m_tally.blank;
        return;
    }
    qint64 index = -1;
    if (!m_tally.synced) {
        index = m_log->findLatest(key);
        if (index < 0) {
            ++m_tally.unknown;
            return;
        }
        m_tally.synced = true;
    } else {
        index = m_log->findAfter(key, m_cursor);
        if (index < 0) {
            const qint64 earlier = m_log->findLatest(key);
            // The same state again is no change; an earlier one came out of order.
            if (earlier >= 0 && earlier < m_cursor)
                ++m_tally.outOfOrder;
            else if (earlier < 0)
                ++m_tally.unknown;
            return;
        }
        m_tally.missed += index - m_cursor - 1;
    }
    m_cursor = index;
    ++m_tally.received;
    const qint64 sentAt = m_log->sentAtMs(index);
    if (sentAt >= 0)
        m_tally.maxDelayMs = std::max(m_tally.maxDelayMs, m_clock->elapsed() - sentAt);
}

void ReadingClient::onDisconnected()
{
    if (!m_finished)
        m_tally.lost = true;
}

void ReadingClient::finish()
{
    if (m_finished)
        return;
    if (m_tally.synced)
        m_tally.missed += m_log->lastIndex() - m_cursor;
    m_finished = true;
    m_socket.abort();
}

SlowClient::SlowClient(QObject* parent) : QObject(parent)
{
    connect(&m_timer, &QTimer::timeout, this, &SlowClient::round);
}

SlowClient::~SlowClient()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

// A plain socket: a Qt socket would read into its own buffer, and its receive buffer size can
// only be set once it is connected.
bool SlowClient::connectTo(quint16 port, QString* error)
{
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &kSlowReceiveBuffer, sizeof kSlowReceiveBuffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // On the loopback the handshake completes within the call.
    if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    m_since.start();
    m_timer.start(kSlowRoundMs);
    return true;
}

void SlowClient::round()
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(m_fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
        info.tcpi_state != TCP_ESTABLISHED) {
        m_dropped = true;
    } else if (m_sent < MaxRequests) {
        static const QByteArray requests = QByteArray("get\n").repeated(RequestsPerRound);
        const ssize_t written = ::send(m_fd, requests.constData(), std::size_t(requests.size()),
                                       MSG_NOSIGNAL | MSG_DONTWAIT);
        if (written > 0)
            m_sent += written / 4;
        else if (written < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            m_dropped = true;
    }
    if (m_dropped) {
        m_droppedAfterMs = m_since.elapsed();
        m_timer.stop();
    }
}

} // namespace vantorelle::soak
