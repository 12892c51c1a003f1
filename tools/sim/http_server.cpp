#include "http_server.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSslServer>
#include <QTcpSocket>
#include <QTimer>

#include <optional>

namespace vantorelle::sim {

namespace {

const char* reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 402:
        return "Payment Required";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 409:
        return "Conflict";
    case 413:
        return "Content Too Large";
    case 429:
        return "Too Many Requests";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 501:
        return "Not Implemented";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

QString routeKey(const QByteArray& method, const QString& path)
{
    return QString::fromLatin1(method) + QLatin1Char(' ') + path;
}

// The result of reading one request from the front of a connection's buffer.
struct Parsed
{
    std::optional<HttpRequest> request; // empty while more bytes are needed, or on error
    int errorStatus = 0;                // set when the request is refused
    bool keepAlive = true;
};

bool splitHead(const QByteArray& head, HttpRequest& request, QByteArray& version)
{
    const QList<QByteArray> lines = head.split('\n');
    const QList<QByteArray> start = lines.value(0).trimmed().split(' ');
    if (start.size() != 3 || !start[1].startsWith('/') || !start[2].startsWith("HTTP/1."))
        return false;
    request.method = start[0];
    version = start[2];
    const qsizetype mark = start[1].indexOf('?');
    request.path = QUrl::fromPercentEncoding(start[1].left(mark < 0 ? start[1].size() : mark));
    if (mark >= 0)
        request.query = QUrlQuery(QString::fromUtf8(start[1].mid(mark + 1)));
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            return false;
        request.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    }
    return true;
}

bool wantsKeepAlive(const HttpRequest& request, const QByteArray& version)
{
    const QByteArray connection = request.header("Connection").toLower();
    if (version == "HTTP/1.0")
        return connection == "keep-alive";
    return connection != "close";
}

Parsed parseRequest(QByteArray& buffer)
{
    Parsed parsed;
    const qsizetype end = buffer.indexOf("\r\n\r\n");
    if (end < 0) {
        if (buffer.size() > HttpServer::MaxHeadBytes)
            parsed.errorStatus = 431;
        return parsed;
    }
    HttpRequest request;
    QByteArray version;
    if (!splitHead(buffer.left(end), request, version)) {
        parsed.errorStatus = 400;
        return parsed;
    }
    if (!request.header("Transfer-Encoding").isEmpty()) {
        parsed.errorStatus = 501;
        return parsed;
    }
    bool validLength = true;
    const QByteArray lengthText = request.header("Content-Length");
    const qint64 length = lengthText.isEmpty() ? 0 : lengthText.toLongLong(&validLength);
    if (!validLength || length < 0) {
        parsed.errorStatus = 400;
        return parsed;
    }
    if (length > HttpServer::MaxBodyBytes) {
        parsed.errorStatus = 413;
        return parsed;
    }
    if (buffer.size() < end + 4 + length)
        return parsed;
    request.body = buffer.mid(end + 4, length);
    buffer.remove(0, end + 4 + length);
    parsed.keepAlive = wantsKeepAlive(request, version);
    parsed.request = std::move(request);
    return parsed;
}

QByteArray responseHead(const HttpResponse& response, qint64 announced, bool closeAfter)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' +
                      reasonPhrase(response.status) + "\r\n";
    head += "Content-Length: " + QByteArray::number(announced) + "\r\n";
    for (const auto& [name, value] : response.headers)
        head += name + ": " + value + "\r\n";
    if (closeAfter)
        head += "Connection: close\r\n";
    return head + "\r\n";
}

} // namespace

struct HttpServer::Connection
{
    QTcpSocket* socket = nullptr;
    QByteArray buffer;
    bool answering = false; // a response is still being delivered
};

QByteArray HttpRequest::header(const QByteArray& name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

HttpResponse HttpResponse::json(const QJsonObject& object, int status)
{
    return text(QJsonDocument(object).toJson(QJsonDocument::Compact), status, "application/json");
}

HttpResponse HttpResponse::text(const QByteArray& body, int status, const QByteArray& contentType)
{
    HttpResponse response;
    response.status = status;
    response.body = body;
    response.headers.append({"Content-Type", contentType});
    return response;
}

HttpResponse& HttpResponse::withHeader(const QByteArray& name, const QByteArray& value)
{
    headers.append({name, value});
    return *this;
}

HttpServer::HttpServer(QObject* parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] { accept(m_server); });
}

HttpServer::~HttpServer()
{
    close();
}

bool HttpServer::listen(const QHostAddress& address, quint16 port)
{
    return m_server.listen(address, port);
}

bool HttpServer::listenTls(const QSslCertificate& certificate, const QSslKey& key,
                           const QHostAddress& address, quint16 port)
{
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setLocalCertificate(certificate);
    tls.setPrivateKey(key);
    tls.setPeerVerifyMode(QSslSocket::VerifyNone);
    m_tlsServer = std::make_unique<QSslServer>();
    m_tlsServer->setSslConfiguration(tls);
    // A TLS connection is handed over only once its handshake has finished.
    connect(m_tlsServer.get(), &QTcpServer::pendingConnectionAvailable, this,
            [this] { accept(*m_tlsServer); });
    return m_tlsServer->listen(address, port);
}

quint16 HttpServer::port() const
{
    return m_tlsServer ? m_tlsServer->serverPort() : m_server.serverPort();
}

void HttpServer::close()
{
    m_server.close();
    if (m_tlsServer)
        m_tlsServer->close();
    const QList<QTcpSocket*> sockets = m_connections.keys();
    for (QTcpSocket* socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        drop(socket);
    }
}

QUrl HttpServer::url(const QString& path) const
{
    const QString scheme = m_tlsServer ? QStringLiteral("https") : QStringLiteral("http");
    return QUrl(QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme).arg(port()).arg(path));
}

void HttpServer::route(const QByteArray& method, const QString& path, Handler handler)
{
    m_routes.insert(routeKey(method, path), std::move(handler));
}

void HttpServer::removeRoute(const QByteArray& method, const QString& path)
{
    m_routes.remove(routeKey(method, path));
}

int HttpServer::requestCount(const QByteArray& method, const QString& path) const
{
    return int(std::count_if(m_requests.cbegin(), m_requests.cend(), [&](const HttpRequest& r) {
        return r.method == method && r.path == path;
    }));
}

void HttpServer::accept(QTcpServer& server)
{
    while (QTcpSocket* socket = server.nextPendingConnection()) {
        m_connections.insert(socket, new Connection{socket, {}, false});
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] { drop(socket); });
        // A TLS client may have sent its request along with the end of the handshake.
        if (socket->bytesAvailable() > 0)
            readFrom(socket);
    }
}

void HttpServer::readFrom(QTcpSocket* socket)
{
    Connection* connection = m_connections.value(socket);
    if (!connection)
        return;
    connection->buffer += socket->readAll();
    serveNext(*connection);
}

void HttpServer::serveNext(Connection& connection)
{
    if (connection.answering)
        return;
    Parsed parsed = parseRequest(connection.buffer);
    if (parsed.errorStatus != 0) {
        connection.buffer.clear();
        deliver(connection,
                HttpResponse::text(reasonPhrase(parsed.errorStatus), parsed.errorStatus), false);
        return;
    }
    if (!parsed.request)
        return;
    m_requests.append(*parsed.request);
    Q_EMIT requestReceived(*parsed.request);
    deliver(connection, answer(*parsed.request), parsed.keepAlive);
}

HttpResponse HttpServer::answer(const HttpRequest& request) const
{
    const auto route = m_routes.constFind(routeKey(request.method, request.path));
    if (route != m_routes.cend())
        return (*route)(request);
    if (m_fallback)
        return m_fallback(request);
    const QString suffix = QLatin1Char(' ') + request.path;
    const bool otherMethod = std::any_of(m_routes.keyBegin(), m_routes.keyEnd(),
                                         [&](const QString& key) { return key.endsWith(suffix); });
    return otherMethod ? HttpResponse::text("method not allowed", 405)
                       : HttpResponse::text("not found", 404);
}

void HttpServer::deliver(Connection& connection, const HttpResponse& response, bool keepAlive)
{
    connection.answering = true;
    if (response.stall)
        return;
    QTcpSocket* socket = connection.socket;
    const qint64 announced =
        response.announcedLength >= 0 ? response.announcedLength : response.body.size();
    QByteArray body = response.body;
    if (response.dropAfterBytes >= 0)
        body.truncate(response.dropAfterBytes);
    const bool closeAfter =
        !keepAlive || announced != response.body.size() || response.dropAfterBytes >= 0;
    const QByteArray head = responseHead(response, announced, closeAfter);
    auto send = [=, this] {
        socket->write(head);
        sendBody(socket, body, response.chunkBytes, response.chunkIntervalMs, closeAfter);
    };
    if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, socket, send);
    else
        send();
}

void HttpServer::sendBody(QTcpSocket* socket, QByteArray body, int chunkBytes, int intervalMs,
                          bool closeAfter)
{
    if (chunkBytes <= 0 || body.size() <= chunkBytes) {
        socket->write(body);
        finishResponse(socket, closeAfter);
        return;
    }
    socket->write(body.left(chunkBytes));
    QTimer::singleShot(intervalMs, socket, [=, this] {
        sendBody(socket, body.mid(chunkBytes), chunkBytes, intervalMs, closeAfter);
    });
}

void HttpServer::finishResponse(QTcpSocket* socket, bool closeAfter)
{
    Connection* connection = m_connections.value(socket);
    if (!connection)
        return;
    if (closeAfter) {
        socket->disconnectFromHost();
        return;
    }
    connection->answering = false;
    serveNext(*connection);
}

void HttpServer::drop(QTcpSocket* socket)
{
    delete m_connections.take(socket);
    socket->deleteLater();
}

} // namespace vantorelle::sim
