#include "sim/usb_device.h"

#include "sim/admin_responder.h"
#include "sim/game.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QtDebug>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>
#endif

namespace vantorelle::sim {

namespace {

constexpr int DefaultPollMs = 5;
// Game envelopes are skipped while this much output waits: live data is worth nothing late,
// and a computer that is not reading must not find a backlog of old scores.
constexpr qsizetype LiveBacklogLimit = 16 * 1024;
constexpr int MaxReceiverChannel = 13;

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// "7F3A-91C2-44BE-0D18", as the receiver's label prints it.
QString generateReceiverKey()
{
    QStringList groups;
    for (int i = 0; i < 4; ++i)
        groups.append(
            QStringLiteral("%1")
                .arg(QRandomGenerator::global()->bounded(0x10000), 4, 16, QLatin1Char('0'))
                .toUpper());
    return groups.join(QLatin1Char('-'));
}

#ifdef Q_OS_WIN

// Windows has no pseudo-terminals: a serial port there is a driver's device, which a program
// cannot play, so the simulated device does not start (start() returns false).
int openTerminal(QString*)
{
    return -1;
}

qint64 readTerminal(int, char*, qint64)
{
    return -1;
}

qint64 writeTerminal(int, const char*, qint64)
{
    return -1;
}

void closeTerminal(int) {}

#else

// Opens the slave once to make the line raw before anyone else does: in the default cooked
// mode the line discipline would echo what the device sends back to it.
bool makeRaw(const char* slavePath)
{
    const int slave = ::open(slavePath, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0)
        return false;
    termios tio = {};
    bool ok = tcgetattr(slave, &tio) == 0;
    if (ok) {
        cfmakeraw(&tio);
        ok = tcsetattr(slave, TCSANOW, &tio) == 0;
    }
    ::close(slave);
    return ok;
}

// Opens a new pseudo-terminal in raw mode: its master, non-blocking, and the path of its slave.
int openTerminal(QString* slavePath)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0)
        return -1;
    char name[128] = {};
    if (grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name, sizeof name) != 0 || !makeRaw(name)) {
        ::close(master);
        return -1;
    }
    // With the slave closed again, reads on the master fail with EIO until the computer opens
    // the port; poll() takes that as "nobody there".
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    *slavePath = QString::fromLocal8Bit(name);
    return master;
}

qint64 readTerminal(int master, char* buffer, qint64 size)
{
    return ::read(master, buffer, std::size_t(size));
}

qint64 writeTerminal(int master, const char* bytes, qint64 size)
{
    return ::write(master, bytes, std::size_t(size));
}

void closeTerminal(int master)
{
    ::close(master);
}

#endif

} // namespace

UsbDevice::UsbDevice(QObject* parent)
    : QObject(parent), m_admin(new AdminResponder(this)), m_game(new Game(this))
{
    m_pollTimer.setInterval(DefaultPollMs);
    connect(&m_pollTimer, &QTimer::timeout, this, &UsbDevice::poll);
    m_admin->setGame(m_game);
    connect(m_game, &Game::envelopeReady, this, [this](const QJsonObject& envelope) {
        if (m_output.size() <= LiveBacklogLimit)
            sendEnvelope(envelope);
    });
}

UsbDevice::~UsbDevice()
{
    closeMaster();
}

bool UsbDevice::start()
{
    unplug();
    QString path;
    const int master = openTerminal(&path);
    if (master < 0)
        return false;
    m_master = master;
    m_portPath = path;
    m_decoder.clear();
    m_reassembler.reset();
    m_output.clear();
    m_pollTimer.start();
    return true;
}

void UsbDevice::unplug()
{
    m_pollTimer.stop();
    closeMaster();
}

void UsbDevice::closeMaster()
{
    if (m_master >= 0)
        closeTerminal(std::exchange(m_master, -1));
    m_output.clear();
}

void UsbDevice::setPassword(const QString& password)
{
    m_admin->setPassword(password);
}

void UsbDevice::setBusyReplies(int n)
{
    m_admin->setBusyReplies(n);
}

void UsbDevice::setPollInterval(int ms)
{
    m_pollTimer.setInterval(std::max(1, ms));
}

void UsbDevice::setMuted(bool muted)
{
    m_muted = muted;
    if (muted)
        m_output.clear();
}

void UsbDevice::startGame(int intervalMs)
{
    m_game->start(intervalMs);
}

void UsbDevice::stopGame()
{
    m_game->stop();
}

// ---- sending ----

void UsbDevice::sendEnvelope(const QJsonObject& envelope)
{
    sendFrame(FrameType::Live, compact(envelope));
}

void UsbDevice::sendControl(const QJsonObject& message)
{
    sendFrame(FrameType::Control, compact(message));
}

void UsbDevice::sendFrame(FrameType type, const QByteArray& payload)
{
    const QByteArray frame = encodeFrame(type, payload);
    if (frame.isEmpty()) {
        qWarning("UsbDevice: a payload of %lld bytes does not fit in a frame",
                 qlonglong(payload.size()));
        return;
    }
    sendRaw(frame);
}

void UsbDevice::sendAdminReply(const QByteArray& reply)
{
    const QList<QByteArray> frames = encodeAdminRequest(reply);
    if (frames.isEmpty())
        qWarning("UsbDevice: an admin reply of %lld bytes is too large to send",
                 qlonglong(reply.size()));
    for (const QByteArray& frame : frames)
        sendRaw(frame);
}

void UsbDevice::sendRaw(const QByteArray& bytes)
{
    if (m_master < 0 || m_muted || m_output.size() + bytes.size() > MaxPendingOutput)
        return;
    m_output.append(bytes);
    flushOutput();
}

void UsbDevice::flushOutput()
{
    qsizetype sent = 0;
    while (m_master >= 0 && sent < m_output.size()) {
        const qint64 written =
            writeTerminal(m_master, m_output.constData() + sent, m_output.size() - sent);
        if (written <= 0)
            break; // full (EAGAIN) or nobody there: the next poll tries again
        sent += written;
    }
    m_output.remove(0, sent);
}

// ---- receiving ----

void UsbDevice::poll()
{
    readMaster();
    flushOutput();
}

void UsbDevice::readMaster()
{
    QByteArray incoming;
    char buffer[4096];
    while (m_master >= 0) {
        const qint64 got = readTerminal(m_master, buffer, sizeof buffer);
        if (got <= 0)
            break; // EAGAIN: nothing more; EIO: the port is not open on the other side
        incoming.append(buffer, got);
    }
    if (incoming.isEmpty())
        return;
    for (const Frame& frame : m_decoder.decodeFrames(incoming)) {
        if (m_master < 0)
            return; // a receiver of a signal unplugged the device
        dispatch(frame);
    }
}

void UsbDevice::dispatch(const Frame& frame)
{
    Q_EMIT frameReceived(frame.type, frame.payload);
    switch (frame.type) {
    case FrameType::Control: {
        const QJsonDocument document = QJsonDocument::fromJson(frame.payload);
        if (document.isObject())
            handleControl(document.object());
        break;
    }
    case FrameType::Admin:
        handleAdminPayload(frame.payload);
        break;
    case FrameType::CloudRelay:
        Q_EMIT relayReceived(frame.payload);
        break;
    case FrameType::StreamRelay:
        Q_EMIT streamReceived(frame.payload);
        break;
    case FrameType::Live:
        break; // only the device sends live data
    }
}

void UsbDevice::handleControl(const QJsonObject& message)
{
    Q_EMIT controlReceived(message);
    const QString kind = message.value(QStringLiteral("t")).toString();
    if (kind == QLatin1String("hello")) {
        ++m_helloCount;
        if (m_answersHello)
            sendControl(m_role == Role::Device ? helloAnswer() : receiverStatus());
    } else if (kind == QLatin1String("ping")) {
        if (m_answersHello)
            sendControl({{QStringLiteral("t"), QStringLiteral("pong")}});
    } else if (kind.startsWith(QLatin1String("rx_")) && m_role == Role::Receiver) {
        handleReceiverControl(kind, message);
    }
}

void UsbDevice::handleReceiverControl(const QString& kind, const QJsonObject& message)
{
    if (!m_answersReceiver)
        return;
    if (kind == QLatin1String("rx_status")) {
        sendReceiverStatus();
        return;
    }
    if (kind == QLatin1String("rx_reboot")) {
        sendControl(
            {{QStringLiteral("t"), QStringLiteral("rx_reboot")}, {QStringLiteral("ok"), true}});
        return;
    }
    if (kind != QLatin1String("rx_set"))
        return;

    const auto refuse = [this](const QString& error) {
        sendControl({{QStringLiteral("t"), QStringLiteral("rx_error")},
                     {QStringLiteral("ok"), false},
                     {QStringLiteral("error"), error}});
    };
    if (!m_receiverError.isEmpty()) {
        refuse(std::exchange(m_receiverError, {}));
        return;
    }
    const QJsonValue channel = message.value(QStringLiteral("channel"));
    if (!channel.isUndefined() && (channel.toInt() < 1 || channel.toInt() > MaxReceiverChannel)) {
        refuse(QStringLiteral("The channel must be from 1 to %1").arg(MaxReceiverChannel));
        return;
    }
    if (message.value(QStringLiteral("generate_key")).toBool())
        m_receiverKey = generateReceiverKey();
    else if (message.contains(QStringLiteral("key")))
        m_receiverKey = message.value(QStringLiteral("key")).toString().trimmed();
    if (!channel.isUndefined())
        m_receiverChannel = channel.toInt();
    sendControl({{QStringLiteral("t"), QStringLiteral("rx_set")},
                 {QStringLiteral("ok"), true},
                 {QStringLiteral("key"), m_receiverKey},
                 {QStringLiteral("channel"), m_receiverChannel}});
}

void UsbDevice::handleAdminPayload(const QByteArray& payload)
{
    const std::optional<QByteArray> request = m_reassembler.add(payload);
    if (!request)
        return;
    const QJsonDocument document = QJsonDocument::fromJson(*request);
    if (!document.isObject()) {
        if (m_answersAdmin)
            sendAdminReply(m_admin->handle(*request)); // the "bad_request" answer
        return;
    }
    Q_EMIT adminRequest(document.object());
    if (m_answersAdmin && m_master >= 0)
        answerAdmin(document.object());
}

void UsbDevice::answerAdmin(const QJsonObject& request)
{
    const QByteArray reply = compact(m_admin->handle(request));
    if (m_adminReplyDelayMs <= 0) {
        sendAdminReply(reply);
        return;
    }
    QTimer::singleShot(m_adminReplyDelayMs, this, [this, reply] { sendAdminReply(reply); });
}

// ---- what the device says about itself ----

QJsonObject UsbDevice::helloAnswer() const
{
    QJsonObject hello{{QStringLiteral("name"), QStringLiteral("Vantorelle 0042")},
                      {QStringLiteral("device_id"), QStringLiteral("VT-0042")},
                      {QStringLiteral("model"), QStringLiteral("VT-100")},
                      {QStringLiteral("fw_version"), QStringLiteral("2.4.1")},
                      {QStringLiteral("proto"), 1},
                      {QStringLiteral("sport"), m_game->sportName()}};
    for (auto it = m_helloInfo.begin(); it != m_helloInfo.end(); ++it)
        hello.insert(it.key(), it.value());
    hello.insert(QStringLiteral("t"), QStringLiteral("hello"));
    return hello;
}

QJsonObject UsbDevice::receiverStatus() const
{
    QJsonObject status{{QStringLiteral("name"), QStringLiteral("Vantorelle Receiver")},
                       {QStringLiteral("fw_version"), QStringLiteral("1.2.0")},
                       {QStringLiteral("channel"), m_receiverChannel},
                       {QStringLiteral("key_set"), !m_receiverKey.isEmpty()},
                       {QStringLiteral("paired"), !m_receiverKey.isEmpty()},
                       {QStringLiteral("peer_mac"), QStringLiteral("24:6F:28:A1:B2:C3")},
                       {QStringLiteral("rssi"), -58}};
    for (auto it = m_helloInfo.begin(); it != m_helloInfo.end(); ++it)
        status.insert(it.key(), it.value());
    status.insert(QStringLiteral("t"), QStringLiteral("rx_status"));
    return status;
}

void UsbDevice::sendReceiverStatus()
{
    sendControl(receiverStatus());
}

} // namespace vantorelle::sim
