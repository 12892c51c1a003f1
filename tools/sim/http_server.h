#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QUrl>
#include <QUrlQuery>

#include <functional>
#include <memory>
#include <utility>

class QJsonObject;
class QSslCertificate;
class QSslKey;
class QSslServer;
class QTcpSocket;

namespace vantorelle::sim {

using HttpHeaders = QList<std::pair<QByteArray, QByteArray>>;

// One request as the server read it.
struct HttpRequest
{
    QByteArray method;
    QString path; // percent-decoded, without the query
    QUrlQuery query;
    HttpHeaders headers;
    QByteArray body;

    // The first header of that name (compared without regard to case); empty when absent.
    QByteArray header(const QByteArray& name) const;
};

// What to answer, and how to deliver it. The delivery fields let a test misbehave on purpose.
struct HttpResponse
{
    int status = 200;
    HttpHeaders headers;
    QByteArray body;

    // "Content-Length" to announce; -1 announces the body's real size. Announcing more than is
    // sent, or less, closes the connection after the body.
    qint64 announcedLength = -1;
    // Close the connection after this many body bytes (-1: send the whole body).
    qint64 dropAfterBytes = -1;
    // Wait this long before the first byte.
    int delayMs = 0;
    // Never answer; the connection stays open until the client gives up.
    bool stall = false;
    // Send the body in pieces of this many bytes, `chunkIntervalMs` apart (0: all at once).
    int chunkBytes = 0;
    int chunkIntervalMs = 0;

    static HttpResponse json(const QJsonObject& object, int status = 200);
    static HttpResponse text(const QByteArray& body, int status = 200,
                             const QByteArray& contentType = "text/plain; charset=utf-8");
    HttpResponse& withHeader(const QByteArray& name, const QByteArray& value);
};

// A small HTTP/1.1 server for tests and the demo: routes by method and path, keeps
// connections alive, and records every request it served.
class HttpServer : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<HttpResponse(const HttpRequest& request)>;

    // Largest request head and body accepted; beyond them the answer is 431 or 413.
    static constexpr qsizetype MaxHeadBytes = 64 * 1024;
    static constexpr qsizetype MaxBodyBytes = 16 * 1024 * 1024;

    explicit HttpServer(QObject* parent = nullptr);
    ~HttpServer() override;

    bool listen(const QHostAddress& address = QHostAddress(QHostAddress::LocalHost),
                quint16 port = 0);
    // Serves over TLS instead, presenting `certificate` with `key`; url() then says "https".
    bool listenTls(const QSslCertificate& certificate, const QSslKey& key,
                   const QHostAddress& address = QHostAddress(QHostAddress::LocalHost),
                   quint16 port = 0);
    void close();
    quint16 port() const;
    // "http://127.0.0.1:<port>" (or "https://...") followed by `path`.
    QUrl url(const QString& path = QStringLiteral("/")) const;

    // Answers `method` on `path` (exact match). A later route for the same pair replaces it.
    void route(const QByteArray& method, const QString& path, Handler handler);
    void removeRoute(const QByteArray& method, const QString& path);
    // Answers requests no route matches (default: 404, or 405 when only the method differs).
    void setFallback(Handler handler) { m_fallback = std::move(handler); }

    const QList<HttpRequest>& requests() const { return m_requests; }
    int requestCount(const QByteArray& method, const QString& path) const;

Q_SIGNALS:
    void requestReceived(const vantorelle::sim::HttpRequest& request);

private:
    struct Connection;

    void accept(QTcpServer& server);
    void readFrom(QTcpSocket* socket);
    void serveNext(Connection& connection);
    HttpResponse answer(const HttpRequest& request) const;
    void deliver(Connection& connection, const HttpResponse& response, bool keepAlive);
    void sendBody(QTcpSocket* socket, QByteArray body, int chunkBytes, int intervalMs,
                  bool closeAfter);
    void finishResponse(QTcpSocket* socket, bool closeAfter);
    void drop(QTcpSocket* socket);

    QTcpServer m_server;
    std::unique_ptr<QSslServer> m_tlsServer; // only while serving over TLS
    QHash<QString, Handler> m_routes;        // key: "METHOD path"
    Handler m_fallback;
    QHash<QTcpSocket*, Connection*> m_connections;
    QList<HttpRequest> m_requests;
};

} // namespace vantorelle::sim
