#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>

class QSslSocket;

namespace vantorelle {

// Where the feed connects and how it backs off; tests shrink the delays and pick the port.
struct TlsFeedSettings
{
    quint16 port = 1010;     // the device's feed port
    int firstDelayMs = 1000; // first wait before reconnecting, and the wait after "auth_ok"
    int maxDelayMs = 15000;  // the wait doubles up to this
    // An attempt that has not finished its TLS handshake, or has no "auth_ok" answer, this long
    // after it started (or after the handshake) is given up and retried after the usual wait.
    int connectTimeoutMs = 10000;
    int authTimeoutMs = 10000;
    // A live connection that has brought nothing at all (not even a heartbeat) for this long is
    // dropped and retried: a device that hangs with its connection open still answers TCP
    // keep-alive. Twice the default stale limit, so that a quiet feed shows stale first.
    int silenceTimeoutMs = 60000;
    // A line longer than this (no line feed yet) drops the connection.
    qsizetype maxLineBytes = 64 * 1024;
};

// The live-score client of a device on the local network: one TLS connection to the device's
// feed port, authorised by a token, delivering each live-data line as an envelope. A lost
// connection is retried with growing waits; a rejected token is not retried.
class TlsFeed : public QObject
{
    Q_OBJECT

public:
    explicit TlsFeed(const TlsFeedSettings& settings = {}, QObject* parent = nullptr);
    ~TlsFeed() override;

    // Stops any earlier connection and connects to `host` at once.
    void start(const QString& host, const QString& token);
    // Stops for good; emits `connectedChanged(false, "")` only when the feed was live.
    void stop();

    bool isRunning() const { return m_running; }
    bool isAuthenticated() const { return m_authenticated; }
    // The sentence that explains the last failure (empty after a successful authentication).
    QString lastError() const { return m_lastError; }
    // How long the feed waits before reconnecting after the next lost connection.
    int nextReconnectDelayMs() const { return m_delayMs; }
    QString host() const { return m_host; }
    quint16 port() const { return m_port; }

Q_SIGNALS:
    // True once the device accepted the token; false when a live feed ends, with the reason.
    void connectedChanged(bool connected, const QString& detail);
    // An attempt ended before the device accepted the token; the feed tries again by itself.
    void attemptFailed(const QString& detail);
    void envelope(const QJsonObject& envelope);

private:
    void connectNow();
    void dropSocket();
    void onEncrypted();
    void onReadyRead();
    void onSocketError();
    void onDisconnected(QSslSocket* socket);
    void handleLine(const QByteArray& line);
    void stopWithError(const QString& message);
    void giveUpAttempt(const QString& message);
    void onConnected();

    QSslSocket* m_socket = nullptr;
    QString m_host;
    quint16 m_port;
    QString m_token;
    QByteArray m_buffer;
    bool m_authenticated = false;
    bool m_running = false;
    QString m_lastError;
    QTimer m_reconnectTimer;
    // The connect-and-handshake deadline, then the "auth_ok" deadline.
    QTimer m_attemptTimer;
    // Restarted by every read of a live connection.
    QTimer m_silenceTimer;
    int m_delayMs;
    TlsFeedSettings m_settings;
};

} // namespace vantorelle
