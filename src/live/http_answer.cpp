#include "http_answer.h"

#include "overlay_page.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace vantorelle::http {

namespace {

bool isUpper(char c)
{
    return c >= 'A' && c <= 'Z';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Visible ASCII: what a request target may hold (anything else arrives percent-encoded).
bool isTargetByte(char c)
{
    return c > 0x20 && c < 0x7f;
}

// Longest method we treat as one; longer uppercase words at the start of a line are ops.
constexpr qsizetype MaxMethodBytes = 16;

struct Page
{
    const char* status;
    const char* type;
    QByteArray body;
    QByteArray extraHeaders = {};
};

QByteArray headers(const char* status, const char* type, const QByteArray& extra)
{
    QByteArray out = "HTTP/1.1 ";
    out += status;
    out += "\r\nContent-Type: ";
    out += type;
    out += "\r\n";
    out += extra;
    // Every answer is the state of a live game: nothing may keep it, and any page may read it.
    out += "Cache-Control: no-store\r\n"
           "Access-Control-Allow-Origin: *\r\n"
           "X-Content-Type-Options: nosniff\r\n"
           "Connection: close\r\n";
    return out;
}

Answer whole(const Request& request, const Page& page)
{
    QByteArray out = headers(page.status, page.type,
                             "Content-Length: " + QByteArray::number(page.body.size()) + "\r\n" +
                                 page.extraHeaders);
    out += "\r\n";
    if (request.method != "HEAD")
        out += page.body;
    return {out, false};
}

Page notFound()
{
    return {"404 Not Found", "text/plain; charset=utf-8",
            "Not found. This server answers /overlay, /events, /snapshot.json, /snapshot.xml and "
            "/fields/NAME.txt.\n"};
}

QJsonObject snapshotObject(QByteArrayView line)
{
    return QJsonDocument::fromJson(QByteArray::fromRawData(line.data(), line.size())).object();
}

// "sport" names the sport, as in score templates; any other name a field.
bool lookUp(const QJsonObject& snapshot, const QString& name, QString* value)
{
    if (name == QLatin1String("sport")) {
        *value = snapshot.value(QLatin1String("sport")).toString();
        return true;
    }
    const QJsonObject fields = snapshot.value(QLatin1String("fields")).toObject();
    const auto it = fields.constFind(name);
    if (it == fields.constEnd())
        return false;
    *value = it->toString();
    return true;
}

// Names are kept to ASCII: readers of the older XML rules (as some video software uses) take
// fewer characters in a name than the newer ones, and an escaped name reads the same in both.
bool isNameStart(char32_t c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool isNameChar(char32_t c)
{
    return isNameStart(c) || c == '-' || c == '.' || (c >= '0' && c <= '9');
}

bool isHex(QChar c)
{
    return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}

// "_x" followed by 4 or 8 hex digits and "_" at `at`: what an escape looks like.
bool looksEscaped(const QString& name, qsizetype at)
{
    if (name.size() < at + 7 || name[at] != u'_' || name[at + 1] != u'x')
        return false;
    for (int digits : {4, 8}) {
        qsizetype i = at + 2;
        while (i < at + 2 + digits && i < name.size() && isHex(name[i]))
            ++i;
        if (i == at + 2 + digits && i < name.size() && name[i] == u'_')
            return true;
    }
    return false;
}

// Characters XML 1.0 cannot carry at all, not even as references.
bool isXmlChar(char32_t c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

void appendXmlText(QByteArray& out, const QString& text)
{
    QString escaped;
    escaped.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t c = text[i].unicode();
        if (QChar::isHighSurrogate(c) && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            escaped.append(text[i]);
            escaped.append(text[++i]);
            continue;
        }
        if (!isXmlChar(c) || QChar::isSurrogate(c))
            continue;
        switch (c) {
        case '&':
            escaped.append(QLatin1String("&amp;"));
            break;
        case '<':
            escaped.append(QLatin1String("&lt;"));
            break;
        case '>':
            escaped.append(QLatin1String("&gt;"));
            break;
        case '\r': // a reader would turn a bare one into a line feed
            escaped.append(QLatin1String("&#13;"));
            break;
        default:
            escaped.append(text[i]);
        }
    }
    out += escaped.toUtf8();
}

void appendElement(QByteArray& out, const QString& name, const QString& text)
{
    const QByteArray tag = xmlElementName(name).toUtf8();
    if (tag.isEmpty())
        return;
    out += '<' + tag + '>';
    appendXmlText(out, text);
    out += "</" + tag + '>';
}

} // namespace

Opening classifyOpening(QByteArrayView bytes)
{
    enum
    {
        Method,
        Target,
        Version,
        CarriageReturn
    } part = Method;
    qsizetype start = 0;
    static constexpr QByteArrayView prefix("HTTP/d.d");
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        const char c = bytes[i];
        switch (part) {
        case Method:
            if (c == ' ' && i > 0) {
                part = Target;
                start = i + 1;
            } else if (!isUpper(c) || i >= MaxMethodBytes) {
                return Opening::Other;
            }
            break;
        case Target:
            if (c == ' ' && i > start) {
                part = Version;
                start = i + 1;
            } else if (!isTargetByte(c)) {
                return Opening::Other;
            }
            break;
        case Version: {
            const char wanted = prefix[i - start];
            if (wanted == 'd' ? !isDigit(c) : c != wanted)
                return Opening::Other;
            if (i - start == prefix.size() - 1)
                part = CarriageReturn;
            break;
        }
        case CarriageReturn:
            if (c == '\n')
                return Opening::Request;
            if (c != '\r' || (i + 1 < bytes.size() && bytes[i + 1] != '\n'))
                return Opening::Other;
            break;
        }
    }
    return Opening::Undecided;
}

HeadState readRequestHead(QByteArrayView bytes, Request* request)
{
    // The head ends at the first empty line.
    qsizetype end = -1;
    for (qsizetype i = bytes.indexOf('\n'); i >= 0; i = bytes.indexOf('\n', i + 1)) {
        const qsizetype next = i + 1;
        if (next < bytes.size() && bytes[next] == '\n') {
            end = next + 1;
            break;
        }
        if (next + 1 < bytes.size() && bytes[next] == '\r' && bytes[next + 1] == '\n') {
            end = next + 2;
            break;
        }
        if (next >= MaxRequestHeadBytes)
            break;
    }
    if (end < 0)
        return bytes.size() > MaxRequestHeadBytes ? HeadState::TooLarge : HeadState::Incomplete;
    if (end > MaxRequestHeadBytes)
        return HeadState::TooLarge;

    *request = {};
    QByteArrayView line = bytes.first(bytes.indexOf('\n'));
    if (line.endsWith('\r'))
        line.chop(1);
    const qsizetype firstSpace = line.indexOf(' ');
    const qsizetype lastSpace = line.lastIndexOf(' ');
    if (firstSpace <= 0 || lastSpace <= firstSpace)
        return HeadState::Complete;
    request->method = line.first(firstSpace).toByteArray();
    const QByteArrayView target = line.sliced(firstSpace + 1, lastSpace - firstSpace - 1);
    // Only the origin form ("/path?query"); a proxy's absolute form is not for us.
    if (!target.startsWith('/'))
        return HeadState::Complete;
    const qsizetype question = target.indexOf('?');
    request->path = (question < 0 ? target : target.first(question)).toByteArray();
    if (question >= 0)
        request->query = target.sliced(question + 1).toByteArray();
    request->valid = true;
    return HeadState::Complete;
}

Answer answer(const Request& request, const SnapshotSource& snapshot)
{
    if (!request.valid)
        return whole(request, {"400 Bad Request", "text/plain; charset=utf-8", "Bad request.\n"});
    if (request.method != "GET" && request.method != "HEAD")
        return whole(request, {"405 Method Not Allowed", "text/plain; charset=utf-8",
                               "Only GET and HEAD are answered here.\n", "Allow: GET, HEAD\r\n"});

    const QByteArray& path = request.path;
    if (path == "/snapshot.json")
        return whole(request, {"200 OK", "application/json", snapshot()});
    if (path == "/snapshot.xml")
        return whole(request,
                     {"200 OK", "application/xml; charset=utf-8", snapshotXml(snapshot())});
    if (path == "/overlay") {
        // The page's own rules keep every request it makes on this server.
        return whole(request,
                     {"200 OK", "text/html; charset=utf-8", overlayPage(request.query),
                      "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
                      "script-src 'unsafe-inline'; connect-src 'self'\r\n"});
    }
    if (path == "/events") {
        QByteArray out = headers("200 OK", "text/event-stream; charset=utf-8", {}) + "\r\n";
        if (request.method == "HEAD")
            return {out, false};
        // A browser that lost the stream tries again after a second rather than three.
        out += "retry: 1000\n" + eventMessage(snapshot());
        return {out, true};
    }
    static constexpr QByteArrayView fieldsPrefix("/fields/"), textSuffix(".txt");
    if (path.startsWith(fieldsPrefix) && path.endsWith(textSuffix)) {
        const QByteArray encoded =
            path.sliced(fieldsPrefix.size(), path.size() - fieldsPrefix.size() - textSuffix.size());
        const QString name = QString::fromUtf8(QByteArray::fromPercentEncoding(encoded));
        QString value;
        if (!name.isEmpty() && lookUp(snapshotObject(snapshot()), name, &value))
            return whole(request, {"200 OK", "text/plain; charset=utf-8", value.toUtf8()});
    }
    return whole(request, notFound());
}

QByteArray eventMessage(QByteArrayView snapshotLine)
{
    // A compact JSON line holds no line break of its own but the one at its end.
    if (snapshotLine.endsWith('\n'))
        snapshotLine.chop(1);
    return "data: " + snapshotLine.toByteArray() + "\n\n";
}

QByteArray keepAliveComment()
{
    return ": keep-alive\n\n";
}

QByteArray snapshotXml(QByteArrayView snapshotLine)
{
    const QJsonObject snapshot = snapshotObject(snapshotLine);
    QByteArray out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<scoreboard>";
    appendElement(out, QStringLiteral("sport"), snapshot.value(QLatin1String("sport")).toString());
    const QJsonObject fields = snapshot.value(QLatin1String("fields")).toObject();
    for (auto it = fields.constBegin(); it != fields.constEnd(); ++it) {
        // "sport" is the sport, as in score templates: a field so named would make two elements.
        if (it.key() != QLatin1String("sport"))
            appendElement(out, it.key(), it->toString());
    }
    out += "</scoreboard>\n";
    return out;
}

QString xmlElementName(const QString& name)
{
    QString out;
    out.reserve(name.size());
    for (qsizetype i = 0; i < name.size(); ++i) {
        char32_t c = name[i].unicode();
        const qsizetype at = i;
        if (QChar::isHighSurrogate(c) && i + 1 < name.size() && name[i + 1].isLowSurrogate()) {
            c = QChar::surrogateToUcs4(name[i], name[i + 1]);
            ++i;
        }
        const bool allowed =
            (at == 0 ? isNameStart(c) : isNameChar(c)) && !(c == '_' && looksEscaped(name, at));
        if (allowed) {
            out.append(name.sliced(at, i - at + 1));
            continue;
        }
        out.append(QLatin1String("_x") +
                   QString::number(uint(c), 16)
                       .toUpper()
                       .rightJustified(c > 0xFFFF ? 8 : 4, QLatin1Char('0')) +
                   QLatin1Char('_'));
    }
    return out;
}

} // namespace vantorelle::http
