#include "socket_keepalive.h"

#include <QAbstractSocket>
#include <QVariant>

#ifdef _WIN32
// mstcpip.h needs the declarations of winsock2.h.
#include <winsock2.h>

#include <mstcpip.h>
#else
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif

namespace vantorelle {

bool enableKeepAlive(QAbstractSocket* socket, const KeepAliveTiming& timing)
{
    if (!socket || socket->socketDescriptor() < 0)
        return false;
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, QVariant(1));
#ifdef _WIN32
    tcp_keepalive values{};
    values.onoff = 1;
    values.keepalivetime = ULONG(timing.idleSeconds) * 1000;
    values.keepaliveinterval = ULONG(timing.intervalSeconds) * 1000;
    DWORD returned = 0;
    // Windows has no per-socket probe count before Windows 10 1703; its default of 10 applies.
    return WSAIoctl(SOCKET(socket->socketDescriptor()), SIO_KEEPALIVE_VALS, &values, sizeof values,
                    nullptr, 0, &returned, nullptr, nullptr) == 0;
#else
    const int fd = int(socket->socketDescriptor());
    const int idle = timing.idleSeconds;
    const int interval = timing.intervalSeconds;
    const int probes = timing.probes;
    return setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) == 0 &&
           setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) == 0 &&
           setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes) == 0;
#endif
}

} // namespace vantorelle
