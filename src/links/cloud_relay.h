#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTcpSocket>

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

Q_SIGNALS:
    void stateChanged();

private:
    bool hasTunnel() const { return !m_host.isEmpty() && m_port != 0; }
    void dropConnection();
    void buffer(const QByteArray& bytes);
    void onConnected();
    void onSocketReadyRead();
    void onSocketError(QAbstractSocket::SocketError error);
    void onDisconnected();

    bool m_share = false;
    QString m_host;
    quint16 m_port = 0;
    QTcpSocket m_socket;
    QByteArray m_pending;
    QString m_error;
};

} // namespace vantorelle
