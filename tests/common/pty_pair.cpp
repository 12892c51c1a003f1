#include "pty_pair.h"

#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

namespace vantorelle::test {

PtyPair::PtyPair()
{
    // The line starts in the system's default (cooked, echoing) mode, as a fresh serial port
    // does: the code under test must make it raw.
    char name[128] = {};
    if (openpty(&m_master, &m_slave, name, nullptr, nullptr) != 0) {
        m_master = m_slave = -1;
        return;
    }
    fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
    fcntl(m_master, F_SETFD, FD_CLOEXEC);
    fcntl(m_slave, F_SETFD, FD_CLOEXEC);
    m_portPath = QString::fromLocal8Bit(name);
    m_notifier = std::make_unique<QSocketNotifier>(m_master, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &PtyPair::drain);
}

PtyPair::~PtyPair()
{
    unplug();
}

bool PtyPair::send(const QByteArray& bytes, int timeoutMs)
{
    // The reader usually runs on this thread's event loop, so a full buffer is waited out there.
    qsizetype offset = 0;
    bool failed = false;
    const auto writeMore = [&] {
        const ssize_t written =
            ::write(m_master, bytes.constData() + offset, std::size_t(bytes.size() - offset));
        if (written > 0) {
            offset += written;
            return true;
        }
        failed = errno != EAGAIN && errno != EINTR;
        return failed;
    };
    while (m_master >= 0 && !failed && offset < bytes.size()) {
        if (!QTest::qWaitFor(writeMore, timeoutMs))
            return false;
    }
    return m_master >= 0 && !failed;
}

QByteArray PtyPair::takeReceived()
{
    drain();
    return std::exchange(m_received, {});
}

bool PtyPair::waitForReceived(qsizetype count, int timeoutMs)
{
    return QTest::qWaitFor(
        [&] {
            drain();
            return m_received.size() >= count;
        },
        timeoutMs);
}

void PtyPair::unplug()
{
    m_notifier.reset();
    if (m_slave >= 0)
        ::close(std::exchange(m_slave, -1));
    if (m_master >= 0)
        ::close(std::exchange(m_master, -1));
}

void PtyPair::drain()
{
    char buffer[4096];
    const qsizetype before = m_received.size();
    for (ssize_t got = 0; m_master >= 0;) {
        got = ::read(m_master, buffer, sizeof buffer);
        if (got <= 0)
            break;
        m_received.append(buffer, got);
    }
    if (m_received.size() > before)
        Q_EMIT bytesReceived();
}

} // namespace vantorelle::test
