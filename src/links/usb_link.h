#pragma once

#include "admin_reassembler.h"
#include "device_link.h"
#include "frame_codec.h"
#include "frame_decoder.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QTimer>

#include <functional>
#include <optional>

namespace vantorelle {

class CloudRelay;
class SerialPort;
class StreamRelay;
class UsbAdminTransport;

// Every interval the USB link waits on; tests shrink them.
struct UsbLinkSettings
{
    int helloIntervalMs = 3000;   // hello resent while the device has not answered
    int giveUpMs = 45000;         // no answer by then: the port is not one of ours
    int pingIntervalMs = 5000;    // keeps the device aware that we are listening
    int pacingMs = 40;            // one relay frame per interval, so admin traffic gets through
    int receiverTimeoutMs = 5000; // a wireless receiver's answer to one request
};

// The link to a device (or a wireless receiver) on a USB serial port. One line carries live
// data, cloud-relay bytes, control messages, admin replies and relayed streams as typed frames.
class UsbLink : public DeviceLink
{
    Q_OBJECT

public:
    // Completion of a receiver request: success, the key given back (may be empty) and the
    // sentence for the user on failure.
    using ReceiverDone = std::function<void(bool ok, const QString& key, const QString& error)>;

    static constexpr qsizetype RelayPieceBytes = 512;
    static constexpr qsizetype RelayQueueLimit = 1024; // frames; one more drops the queue

    explicit UsbLink(const QString& portName, const UsbLinkSettings& settings = {},
                     QObject* parent = nullptr);
    ~UsbLink() override;

    QString kind() const override { return QStringLiteral("usb"); }
    void open() override;
    void close() override;
    RpcTransport* adminTransport() override;
    bool isRemote() const override { return false; }

    QString portName() const { return m_portName; }
    bool isOpened() const { return m_opened; }
    // What the device last said about itself: its hello, or a receiver's status.
    QJsonObject deviceInfo() const { return m_deviceInfo; }
    // True when the port belongs to a wireless receiver rather than a device.
    bool isReceiver() const { return m_receiver; }
    QJsonObject tunnel() const { return m_tunnel; }
    CloudRelay* cloudRelay() const { return m_cloud; }
    StreamRelay* streamRelay() const { return m_stream; }

    // Writes one control message at once (dropped when the port is closed).
    void sendControl(const QJsonObject& message);
    // Queues cloud-relay bytes for paced sending (dropped when the port is closed).
    void sendRelay(const QByteArray& bytes);
    // Frames waiting to be paced out; a relay stops reading its side while this is more than
    // half the limit and reads again after relayQueueLow().
    qsizetype relayQueueSize() const { return m_relayQueue.size(); }

    // Receiver requests; only one may be pending, and `done` is called exactly once.
    void setReceiver(const QString& key, bool generateKey, std::optional<int> channel,
                     ReceiverDone done);
    void requestReceiverStatus(ReceiverDone done);
    void rebootReceiver(ReceiverDone done);

Q_SIGNALS:
    void receiverUpdated(const QJsonObject& status);
    void tunnelChanged();
    // The relay queue went below a quarter of its limit.
    void relayQueueLow();

private:
    void onReadyRead(const QByteArray& data);
    void onPortError(const QString& message);
    void dispatch(const Frame& frame);
    void handleLive(const QByteArray& payload);
    void handleControl(const QByteArray& payload);
    void handleHello(const QJsonObject& hello);
    void handleReceiverStatus(const QJsonObject& status);
    void handleReceiverAnswer(const QString& kind, const QJsonObject& answer);
    void markOpened(const QJsonObject& info);
    void onHelloTick();
    void sendHello();
    void stopRelaying();
    void sendNextRelayFrame();
    void onPacingTick();
    void startReceiverRequest(const QJsonObject& request, ReceiverDone done);
    static void refuseBusy(const ReceiverDone& done);
    void onReceiverTimeout();
    ReceiverDone takeReceiverDone();

    UsbLinkSettings m_settings;
    QString m_portName;
    SerialPort* m_port;
    UsbAdminTransport* m_admin;
    FrameDecoder m_decoder;
    AdminReassembler m_reassembler;
    QTimer m_helloTimer;
    QTimer m_pingTimer;
    QElapsedTimer m_sinceOpen;
    bool m_opened = false;
    bool m_receiver = false;
    CloudRelay* m_cloud;
    StreamRelay* m_stream;
    QJsonObject m_deviceInfo;
    QJsonObject m_tunnel;
    ReceiverDone m_receiverDone;
    QString m_receiverKind; // the request kind that is pending
    QTimer m_receiverTimer;
    QList<QByteArray> m_relayQueue;
    QElapsedTimer m_lastRelaySend;
    QTimer m_pacingTimer;
};

} // namespace vantorelle
