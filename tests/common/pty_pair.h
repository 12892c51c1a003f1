#pragma once

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>
#include <QString>

#include <memory>

namespace vantorelle::test {

// A pseudo-terminal standing in for a USB serial device. The code under test opens
// `portPath()`; the test plays the device on the master side. A slave descriptor stays open
// here, as a plugged-in device keeps its port present, so the port can be closed and reopened.
// The line is in the system's default (cooked) mode until the port is opened: send only then.
class PtyPair : public QObject
{
    Q_OBJECT

public:
    PtyPair();
    ~PtyPair() override;

    bool isValid() const { return m_master >= 0; }
    QString portPath() const { return m_portPath; }
    int masterFd() const { return m_master; }

    // Sends bytes to whoever has the port open, running the event loop while the buffer is
    // full; false when they could not all be passed on within `timeoutMs` of no progress.
    bool send(const QByteArray& bytes, int timeoutMs = 5000);
    // Everything received from the port so far, and forgets it.
    QByteArray takeReceived();
    QByteArray received() const { return m_received; }
    // Runs the event loop until at least `count` bytes are received (or `timeoutMs` passes).
    bool waitForReceived(qsizetype count, int timeoutMs = 5000);
    // Unplugs the device: the port side sees a hang-up.
    void unplug();

Q_SIGNALS:
    void bytesReceived();

private:
    void drain();

    int m_master = -1;
    int m_slave = -1;
    QString m_portPath;
    QByteArray m_received;
    std::unique_ptr<QSocketNotifier> m_notifier;
};

} // namespace vantorelle::test
