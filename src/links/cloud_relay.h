#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>

namespace vantorelle {

class UsbLink;

// Shares this computer's internet with a USB device: the device's hello names a tunnel address,
// and the raw bytes it sends in type-2 frames travel over a plain TCP connection to it. The
// connection is made on the device's first bytes and remade after a failure the same way.
class CloudRelay : public QObject
{
    Q_OBJECT

public:
    // Bytes the device sends while the connection is not up yet wait here, up to this many.
    static constexpr qsizetype PendingLimit = 262144;
    // After a failed connection the next attempt waits this long, doubling up to the maximum;
    // a connection that comes up resets it.
    static constexpr int FirstRetryMs = 1000;
    static constexpr int MaxRetryMs = 30000;
    // What is read from the cloud ahead of the device's queue.
    static constexpr qint64 ReadBufferBytes = 65536;

    explicit CloudRelay(UsbLink* link);
    ~CloudRelay() override;

    UsbLink* link() const;

    void setShareConnection(bool on);
    bool shareConnection() const { return m_share; }

    // Points the relay at the device's tunnel; a different address drops the connection.
    void setTunnel(const QString& host, quint16 port);
    // Forgets the tunnel and drops the connection, its pending bytes and the last error.
    void reset();
    // One type-2 payload from the device.
    void fromDevice(const QByteArray& bytes);

    QString tunnelHost() const { return m_host; }
    quint16 tunnelPort() const { return m_port; }
    bool isConnected() const;
    // Sharing and a tunnel known: the device's next bytes will be carried.
    bool isReady() const { return m_share && hasTunnel(); }
    // Sharing, but the device has not named a tunnel yet.
    bool isWaiting() const { return m_share && !hasTunnel(); }
    QString lastError() const { return m_error; }
    qsizetype pendingBytes() const { return m_pending.size(); }
    // Whether reading from the cloud waits for the device's queue to drain.
    bool isPaused() const { return isConnected() && m_socket.bytesAvailable() > 0; }
    int nextRetryMs() const { return m_retryMs; }
    // Tests shrink the waits between connection attempts.
    void setRetryDelays(int firstMs, int maxMs);

Q_SIGNALS:
    void stateChanged();

private:
    bool hasTunnel() const { return !m_host.isEmpty() && m_port != 0; }
    void dropConnection();
    void closeSocket();
    void buffer(const QByteArray& bytes);
    void onConnected();
    void onSocketReadyRead();
    void onSocketError(QAbstractSocket::SocketError error);
    void onDisconnected();
    void connectNow();
    void forwardToDevice();

    bool m_share = false;
    QString m_host;
    quint16 m_port = 0;
    QTcpSocket m_socket;
    QByteArray m_pending;
    QString m_error;
    int m_firstRetryMs = FirstRetryMs;
    int m_maxRetryMs = MaxRetryMs;
    int m_retryMs = FirstRetryMs;
    QTimer m_retryTimer;
};

} // namespace vantorelle
