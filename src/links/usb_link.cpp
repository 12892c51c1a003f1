#include "usb_link.h"

#include "cloud_relay.h"
#include "serial_port.h"
#include "stream_relay.h"
#include "usb_admin_transport.h"
#include "version.h"

#include <QJsonDocument>
#include <QPointer>

#include <utility>

namespace vantorelle {

namespace {

const QString kNoResponse = QStringLiteral(
    "This USB port did not answer like a Vantorelle device. Check the cable and that the "
    "device has finished starting.");

std::optional<QJsonObject> parseObject(const QByteArray& payload)
{
    const QJsonDocument doc = QJsonDocument::fromJson(payload);
    if (!doc.isObject())
        return std::nullopt;
    return doc.object();
}

} // namespace

UsbLink::UsbLink(const QString& portName, const UsbLinkSettings& settings, QObject* parent)
    : DeviceLink(parent), m_settings(settings), m_portName(portName),
      m_port(new SerialPort(portName, this)), m_admin(new UsbAdminTransport(m_port, this)),
      m_cloud(new CloudRelay(this)), m_stream(new StreamRelay(this))
{
    m_helloTimer.setInterval(m_settings.helloIntervalMs);
    m_pingTimer.setInterval(m_settings.pingIntervalMs);
    m_pacingTimer.setInterval(m_settings.pacingMs);
    // Relay frames must never come closer together than the pacing interval.
    m_pacingTimer.setTimerType(Qt::PreciseTimer);
    m_receiverTimer.setSingleShot(true);
    m_receiverTimer.setInterval(m_settings.receiverTimeoutMs);

    connect(m_port, &SerialPort::readyRead, this, &UsbLink::onReadyRead);
    connect(m_port, &SerialPort::errorOccurred, this, &UsbLink::onPortError);
    connect(&m_helloTimer, &QTimer::timeout, this, &UsbLink::onHelloTick);
    connect(&m_pingTimer, &QTimer::timeout, this, [this] {
        sendControl({{QStringLiteral("t"), QStringLiteral("ping")}});
    });
    connect(&m_pacingTimer, &QTimer::timeout, this, &UsbLink::onPacingTick);
    connect(&m_receiverTimer, &QTimer::timeout, this, &UsbLink::onReceiverTimeout);
}

UsbLink::~UsbLink() = default;

RpcTransport* UsbLink::adminTransport()
{
    return m_admin;
}

void UsbLink::open()
{
    close();
    QString error;
    if (!m_port->open(&error))
        return Q_EMIT failed(QStringLiteral("open_failed"), error);
    m_decoder.clear();
    m_reassembler.reset();
    m_opened = false;
    m_receiver = false;
    m_deviceInfo = {};
    m_tunnel = {};
    m_cloud->reset();
    m_stream->configure({});
    m_sinceOpen.start();
    forgetHeard();
    sendHello();
    m_helloTimer.start();
    m_pingTimer.start();
}

void UsbLink::close()
{
    m_helloTimer.stop();
    m_pingTimer.stop();
    stopRelaying();
    m_port->close();
    m_opened = false;
}

void UsbLink::stopRelaying()
{
    m_pacingTimer.stop();
    m_relayQueue.clear();
    m_cloud->reset();
    m_stream->reset();
}

void UsbLink::sendControl(const QJsonObject& message)
{
    if (m_port->isOpen())
        m_port->write(
            encodeFrame(FrameType::Control, QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void UsbLink::sendHello()
{
    sendControl({{QStringLiteral("t"), QStringLiteral("hello")},
                 {QStringLiteral("streams"), QJsonObject()},
                 {QStringLiteral("client"), QStringLiteral("vantorelle-obs")},
                 {QStringLiteral("version"), pluginVersion()}});
}

void UsbLink::onHelloTick()
{
    if (m_sinceOpen.elapsed() <= m_settings.giveUpMs)
        return sendHello();
    m_helloTimer.stop();
    Q_EMIT failed(QStringLiteral("no_response"), kNoResponse);
}

void UsbLink::onPortError(const QString& message)
{
    m_helloTimer.stop();
    m_pingTimer.stop();
    stopRelaying();
    m_opened = false;
    Q_EMIT closed(message);
}

void UsbLink::onReadyRead(const QByteArray& data)
{
    // A receiver of our signals may close or delete this link mid-way.
    const QPointer<UsbLink> alive(this);
    const QList<Frame> frames = m_decoder.decodeFrames(data);
    if (!frames.isEmpty())
        noteHeard();
    for (const Frame& frame : frames) {
        if (!alive || !m_port->isOpen())
            return;
        dispatch(frame);
    }
}

void UsbLink::dispatch(const Frame& frame)
{
    switch (frame.type) {
    case FrameType::Live:
        return handleLive(frame.payload);
    case FrameType::CloudRelay:
        return m_cloud->fromDevice(frame.payload);
    case FrameType::Control:
        return handleControl(frame.payload);
    case FrameType::Admin:
        if (const std::optional<QByteArray> reply = m_reassembler.add(frame.payload))
            m_admin->deliverReply(*reply);
        return;
    case FrameType::StreamRelay:
        return m_stream->fromDevice(frame.payload);
    }
}

void UsbLink::handleLive(const QByteArray& payload)
{
    if (const std::optional<QJsonObject> object = parseObject(payload))
        Q_EMIT envelope(*object);
}

void UsbLink::handleControl(const QByteArray& payload)
{
    const std::optional<QJsonObject> object = parseObject(payload);
    if (!object)
        return;
    const QString kind = object->value(QStringLiteral("t")).toString();
    if (kind == QLatin1String("hello"))
        handleHello(*object);
    else if (kind == QLatin1String("rx_status"))
        handleReceiverStatus(*object);
    else if (kind == QLatin1String("rx_set") || kind == QLatin1String("rx_reboot") ||
             kind == QLatin1String("rx_error"))
        handleReceiverAnswer(kind, *object);
}

void UsbLink::handleHello(const QJsonObject& hello)
{
    m_deviceInfo = hello;
    m_receiver = false;
    const QJsonObject tunnel = hello.value(QStringLiteral("tunnel")).toObject();
    const QString host = tunnel.value(QStringLiteral("host")).toString();
    const int port = tunnel.value(QStringLiteral("port")).toInt();
    if (!host.isEmpty() && port > 0 && port <= 65535)
        m_cloud->setTunnel(host, quint16(port));
    else
        m_cloud->reset();
    m_stream->configure(hello.value(QStringLiteral("streams")).toObject());
    const bool tunnelDiffers = tunnel != m_tunnel;
    m_tunnel = tunnel;
    if (tunnelDiffers)
        Q_EMIT tunnelChanged();
    if (!m_opened)
        markOpened(hello);
}

void UsbLink::handleReceiverStatus(const QJsonObject& status)
{
    m_deviceInfo = status;
    m_receiver = true;
    Q_EMIT receiverUpdated(status);
    if (!m_opened) {
        QJsonObject info = status;
        info.insert(QStringLiteral("receiver"), true);
        markOpened(info);
    }
    // A status answers a status request; other requests wait for their own kind of answer.
    if (m_receiverKind == QLatin1String("rx_status"))
        handleReceiverAnswer(QStringLiteral("rx_status"), status);
}

void UsbLink::markOpened(const QJsonObject& info)
{
    m_opened = true;
    m_helloTimer.stop();
    Q_EMIT opened(info);
}

void UsbLink::sendRelay(const QByteArray& bytes)
{
    if (bytes.isEmpty() || !m_port->isOpen())
        return;
    for (qsizetype at = 0; at < bytes.size(); at += RelayPieceBytes)
        m_relayQueue.append(
            encodeFrame(FrameType::CloudRelay,
                        bytes.sliced(at).first(qMin(RelayPieceBytes, bytes.size() - at))));
    if (m_relayQueue.size() > RelayQueueLimit)
        return stopRelaying();
    if (m_pacingTimer.isActive())
        return;
    m_pacingTimer.start();
    if (!m_lastRelaySend.isValid() || m_lastRelaySend.elapsed() >= m_settings.pacingMs)
        sendNextRelayFrame();
}

void UsbLink::sendNextRelayFrame()
{
    m_port->write(m_relayQueue.takeFirst());
    m_lastRelaySend.start();
    if (m_relayQueue.size() == RelayQueueLimit / 4 - 1)
        Q_EMIT relayQueueLow();
    // Restarting counts the interval from this send: a repeating timer that fired late would
    // otherwise catch up and put two frames closer together than the interval.
    if (m_relayQueue.isEmpty())
        m_pacingTimer.stop();
    else
        m_pacingTimer.start();
}

void UsbLink::onPacingTick()
{
    if (m_relayQueue.isEmpty() || !m_port->isOpen()) {
        m_pacingTimer.stop();
        m_relayQueue.clear();
        return;
    }
    sendNextRelayFrame();
}

void UsbLink::setReceiver(const QString& key, bool generateKey, std::optional<int> channel,
                          ReceiverDone done)
{
    if (m_receiverDone)
        return refuseBusy(done);
    QJsonObject request{{QStringLiteral("t"), QStringLiteral("rx_set")}};
    if (generateKey)
        request.insert(QStringLiteral("generate_key"), true);
    else if (!key.trimmed().isEmpty())
        request.insert(QStringLiteral("key"), key.trimmed());
    if (channel)
        request.insert(QStringLiteral("channel"), *channel);
    if (request.size() == 1)
        return done(false, {},
                    QStringLiteral("Give a key, ask for a new key, or choose a channel"));
    startReceiverRequest(request, std::move(done));
}

void UsbLink::requestReceiverStatus(ReceiverDone done)
{
    startReceiverRequest({{QStringLiteral("t"), QStringLiteral("rx_status")}}, std::move(done));
}

void UsbLink::rebootReceiver(ReceiverDone done)
{
    startReceiverRequest({{QStringLiteral("t"), QStringLiteral("rx_reboot")}}, std::move(done));
}

void UsbLink::startReceiverRequest(const QJsonObject& request, ReceiverDone done)
{
    if (m_receiverDone)
        return refuseBusy(done);
    m_receiverDone = std::move(done);
    m_receiverKind = request.value(QStringLiteral("t")).toString();
    sendControl(request);
    m_receiverTimer.start();
}

void UsbLink::refuseBusy(const ReceiverDone& done)
{
    done(false, {}, QStringLiteral("Another receiver request is still in progress"));
}

UsbLink::ReceiverDone UsbLink::takeReceiverDone()
{
    m_receiverTimer.stop();
    m_receiverKind.clear();
    return std::exchange(m_receiverDone, {});
}

void UsbLink::handleReceiverAnswer(const QString& kind, const QJsonObject& answer)
{
    if (!m_receiverDone)
        return;
    const ReceiverDone done = takeReceiverDone();
    const bool ok = answer.value(QStringLiteral("ok")).toBool(true);
    if (ok && kind != QLatin1String("rx_error"))
        return done(true, answer.value(QStringLiteral("key")).toString(), {});
    QString error = answer.value(QStringLiteral("error")).toString();
    if (error.isEmpty())
        error = QStringLiteral("The receiver refused the settings");
    done(false, {}, error);
}

void UsbLink::onReceiverTimeout()
{
    if (const ReceiverDone done = takeReceiverDone())
        done(false, {}, QStringLiteral("The receiver did not answer"));
}

} // namespace vantorelle
