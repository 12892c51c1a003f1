#include "tls_feed.h"

#include "socket_keepalive.h"
#include "tls_support.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QSslSocket>

namespace vantorelle {

namespace {

const QString kRejectedAtStart = QStringLiteral(
    "The device rejected the connection. Re-run device setup to refresh its access.");
const QString kRevoked = QStringLiteral("The device rejected the connection.");

QString seconds(int ms)
{
    return QString::number((ms + 999) / 1000);
}

// {"type":"auth","token":...} with its keys in this order, which a JSON object would sort.
QByteArray authLine(const QString& token)
{
    const QByteArray quoted =
        QJsonDocument(QJsonArray{token}).toJson(QJsonDocument::Compact).mid(1).chopped(1);
    return "{\"type\":\"auth\",\"token\":" + quoted + "}\r\n";
}

} // namespace

TlsFeed::TlsFeed(const TlsFeedSettings& settings, QObject* parent)
    : QObject(parent), m_port(settings.port), m_delayMs(settings.firstDelayMs), m_settings(settings)
{
    m_reconnectTimer.setSingleShot(true);
    connect(&m_reconnectTimer, &QTimer::timeout, this, &TlsFeed::connectNow);
    m_attemptTimer.setSingleShot(true);
    connect(&m_attemptTimer, &QTimer::timeout, this, [this] {
        giveUpAttempt(m_socket && m_socket->isEncrypted()
                          ? QStringLiteral("The device did not accept the connection within %1 s.")
                                .arg(seconds(m_settings.authTimeoutMs))
                          : QStringLiteral("The device did not answer on your network within %1 s.")
                                .arg(seconds(m_settings.connectTimeoutMs)));
    });
    m_silenceTimer.setSingleShot(true);
    connect(&m_silenceTimer, &QTimer::timeout, this, [this] {
        giveUpAttempt(QStringLiteral("The device sent nothing for %1 s, so the connection was "
                                     "dropped.")
                          .arg(seconds(m_settings.silenceTimeoutMs)));
    });
}

TlsFeed::~TlsFeed()
{
    m_running = false;
    dropSocket();
}

void TlsFeed::start(const QString& host, const QString& token)
{
    stop();
    m_host = host;
    m_port = m_settings.port;
    m_token = token;
    m_running = true;
    m_delayMs = m_settings.firstDelayMs;
    connectNow();
}

void TlsFeed::stop()
{
    m_running = false;
    m_reconnectTimer.stop();
    m_attemptTimer.stop();
    dropSocket();
    if (m_authenticated) {
        m_authenticated = false;
        Q_EMIT connectedChanged(false, QString());
    }
}

void TlsFeed::connectNow()
{
    if (!m_running)
        return;
    if (!QSslSocket::supportsSsl()) {
        stopWithError(noTlsText()); // no attempt can succeed before OBS starts again
        return;
    }
    dropSocket();
    m_buffer.clear();
    m_authenticated = false;

    auto* socket = new QSslSocket(this);
    m_socket = socket;
    // The device's certificate is not verified: the token is what proves who we are, and the
    // device presents a certificate of its own making.
    connect(socket, &QSslSocket::sslErrors, socket, [socket] { socket->ignoreSslErrors(); });
    connect(socket, &QSslSocket::connected, this, &TlsFeed::onConnected);
    connect(socket, &QSslSocket::encrypted, this, &TlsFeed::onEncrypted);
    connect(socket, &QSslSocket::readyRead, this, &TlsFeed::onReadyRead);
    connect(socket, &QSslSocket::errorOccurred, this, &TlsFeed::onSocketError);
    connect(socket, &QSslSocket::disconnected, this, [this, socket] { onDisconnected(socket); });
    m_attemptTimer.start(m_settings.connectTimeoutMs);
    socket->connectToHostEncrypted(m_host, m_port, QIODevice::ReadWrite,
                                   QAbstractSocket::AnyIPProtocol);
}

// A device that loses power sends nothing more, not even a reset: keep-alive probes notice it.
void TlsFeed::onConnected()
{
    enableKeepAlive(m_socket);
}

void TlsFeed::dropSocket()
{
    m_silenceTimer.stop();
    if (!m_socket)
        return;
    QSslSocket* const socket = m_socket;
    m_socket = nullptr;
    // Detached first, so that its disconnection reports nothing.
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
}

void TlsFeed::onEncrypted()
{
    m_attemptTimer.start(m_settings.authTimeoutMs);
    m_socket->write(authLine(m_token));
}

void TlsFeed::onReadyRead()
{
    QSslSocket* const socket = m_socket;
    m_buffer.append(socket->readAll());
    if (m_authenticated)
        m_silenceTimer.start(m_settings.silenceTimeoutMs);
    const QPointer<TlsFeed> alive(this);
    const auto tooLong = [this] {
        const qsizetype newline = m_buffer.indexOf('\n');
        return (newline < 0 ? m_buffer.size() : newline) > m_settings.maxLineBytes;
    };
    // A receiver of `envelope` may stop, restart or delete the feed; then the rest is not ours.
    while (alive && m_socket == socket) {
        if (tooLong())
            return giveUpAttempt(
                QStringLiteral("The device sent a line longer than %1 KiB, so the connection "
                               "was dropped.")
                    .arg(m_settings.maxLineBytes / 1024));
        const qsizetype newline = m_buffer.indexOf('\n');
        if (newline < 0)
            break;
        const QByteArray line = m_buffer.left(newline).trimmed();
        m_buffer.remove(0, newline + 1);
        if (!line.isEmpty())
            handleLine(line);
    }
}

void TlsFeed::handleLine(const QByteArray& line)
{
    const QJsonDocument doc = QJsonDocument::fromJson(line);
    if (!doc.isObject())
        return;
    const QJsonObject object = doc.object();
    const QString type = object.value(QLatin1String("type")).toString();

    if (!m_authenticated) {
        if (type != QLatin1String("auth_ok")) {
            stopWithError(kRejectedAtStart);
            return;
        }
        m_authenticated = true;
        m_attemptTimer.stop();
        m_silenceTimer.start(m_settings.silenceTimeoutMs);
        m_delayMs = m_settings.firstDelayMs;
        m_lastError.clear();
        Q_EMIT connectedChanged(true, QString());
        return;
    }
    if (type == QLatin1String("auth_fail")) {
        stopWithError(kRevoked);
        return;
    }
    Q_EMIT envelope(object);
}

// A rejected token is not retried: the feed stays stopped until started again.
void TlsFeed::stopWithError(const QString& message)
{
    m_lastError = message;
    m_running = false;
    m_authenticated = false;
    m_reconnectTimer.stop();
    m_attemptTimer.stop();
    dropSocket();
    Q_EMIT connectedChanged(false, m_lastError);
}

// The connection is dropped as if the device had closed it: the usual wait, then a new attempt.
void TlsFeed::giveUpAttempt(const QString& message)
{
    QSslSocket* const socket = m_socket;
    m_lastError = message;
    dropSocket();
    onDisconnected(socket);
}

void TlsFeed::onSocketError()
{
    QSslSocket* const socket = m_socket;
    m_lastError = QStringLiteral("Could not reach the device on your network (%1).")
                      .arg(socket->errorString());
    // A connection that never came up ends without a disconnection of its own.
    if (socket->state() == QAbstractSocket::UnconnectedState)
        onDisconnected(socket);
}

void TlsFeed::onDisconnected(QSslSocket* socket)
{
    m_attemptTimer.stop();
    m_silenceTimer.stop();
    const QPointer<TlsFeed> alive(this);
    if (m_authenticated) {
        m_authenticated = false;
        Q_EMIT connectedChanged(false, m_lastError);
    } else if (m_running) {
        Q_EMIT attemptFailed(m_lastError);
    }
    if (!alive || (m_socket && m_socket != socket))
        return;
    if (m_running && !m_reconnectTimer.isActive()) {
        m_reconnectTimer.start(m_delayMs);
        m_delayMs = qMin(m_delayMs * 2, m_settings.maxDelayMs);
    }
}

} // namespace vantorelle
