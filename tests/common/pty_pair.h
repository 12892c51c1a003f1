#pragma once

#include <QByteArray>
#include <QString>
#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

namespace vantorelle::test {

// A pseudo-terminal standing in for a USB serial device: the code under test opens `portPath()`
// and the test plays the device on the master side. The slave stays open, as a plugged-in device
// keeps its port present. The line starts in the default (cooked) mode, as a fresh port does.
class PtyPair
{
public:
    PtyPair()
    {
        char name[128] = {};
        if (openpty(&m_master, &m_slave, name, nullptr, nullptr) != 0) {
            m_master = m_slave = -1;
            return;
        }
        fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
        fcntl(m_master, F_SETFD, FD_CLOEXEC);
        fcntl(m_slave, F_SETFD, FD_CLOEXEC);
        m_portPath = QString::fromLocal8Bit(name);
    }
    ~PtyPair() { unplug(); }
    Q_DISABLE_COPY(PtyPair)

    bool isValid() const { return m_master >= 0; }
    QString portPath() const { return m_portPath; }
    int masterFd() const { return m_master; }

    // Runs the event loop while the line is full, as the reader usually runs there; false when
    // the bytes could not all be passed on within `timeoutMs` of no progress.
    bool send(const QByteArray& bytes, int timeoutMs = 5000)
    {
        qsizetype at = 0;
        bool failed = false;
        const auto writeMore = [&] {
            const ssize_t n = ::write(m_master, bytes.constData() + at, size_t(bytes.size() - at));
            at += qMax<ssize_t>(n, 0);
            failed = n < 0 && errno != EAGAIN && errno != EINTR;
            return n > 0 || failed;
        };
        while (m_master >= 0 && !failed && at < bytes.size()) {
            if (!QTest::qWaitFor(writeMore, timeoutMs))
                return false;
        }
        return m_master >= 0 && !failed;
    }
    // Everything received from the port so far; take forgets it.
    QByteArray received()
    {
        char buffer[4096];
        for (ssize_t n = 0; m_master >= 0 && (n = ::read(m_master, buffer, sizeof buffer)) > 0;)
            m_received.append(buffer, n);
        return m_received;
    }
    QByteArray takeReceived() { return received(), std::exchange(m_received, {}); }
    bool waitForReceived(qsizetype count, int timeoutMs = 5000)
    {
        return QTest::qWaitFor([&] { return received().size() >= count; }, timeoutMs);
    }
    // The port side sees a hang-up.
    void unplug()
    {
        if (m_slave >= 0)
            ::close(std::exchange(m_slave, -1));
        if (m_master >= 0)
            ::close(std::exchange(m_master, -1));
    }

private:
    int m_master = -1;
    int m_slave = -1;
    QString m_portPath;
    QByteArray m_received;
};

} // namespace vantorelle::test
