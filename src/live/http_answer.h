#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <functional>

namespace vantorelle::http {

// The HTTP side of the sharing server: browser sources, video mixers' data sources and playout
// servers ask for the snapshot the line clients get, in the shape each of them reads. Nothing here
// touches a socket, so the parsing can be fed anything.

// Bytes a request line and its headers may take together; a client that sends more is dropped.
inline constexpr qsizetype MaxRequestHeadBytes = 8192;
// Characters of an overlay template taken from the query string; the rest is cut.
inline constexpr qsizetype MaxTemplateChars = 500;

enum class Opening
{
    Undecided, // what came so far could still become a request line
    Request,   // the first line is an HTTP request line ("GET /x HTTP/1.1")
    Other      // anything else: a line client
};
// What a connection's first bytes are.
Opening classifyOpening(QByteArrayView bytes);

struct Request
{
    bool valid = false; // false: the head was complete but not a request we can read
    QByteArray method;
    QByteArray path;  // as sent, before "?"
    QByteArray query; // as sent, after "?", without it
};

enum class HeadState
{
    Incomplete,
    Complete,
    TooLarge
};
// Reads the head at the start of `bytes`: request line, headers, blank line (CR LF or LF line
// ends). Headers are not needed by any answer and are skipped.
HeadState readRequestHead(QByteArrayView bytes, Request* request);

struct Answer
{
    QByteArray bytes;    // status line, headers and body
    bool events = false; // the connection stays open and gets eventMessage()s
};
// Builds the snapshot line ("{...}\n"), as the line clients get it. Called only when an answer
// needs it.
using SnapshotSource = std::function<QByteArray()>;
// The answer to one request.
Answer answer(const Request& request, const SnapshotSource& snapshot);

// One Server-Sent Event carrying the snapshot line.
QByteArray eventMessage(QByteArrayView snapshotLine);
// The comment that keeps proxies from closing a quiet event stream.
QByteArray keepAliveComment();

// The snapshot as one XML element per value: <scoreboard><sport>..</sport><NAME>..</NAME>...
QByteArray snapshotXml(QByteArrayView snapshotLine);
// The element name a field gets: the name itself when it is made of ASCII letters, digits, "_",
// "-" and "." and starts with a letter or "_"; else every other character written as "_xHHHH_"
// (its code point in hex, eight digits beyond the first plane), the usual way of carrying any
// text in an XML name, and "_" itself so written where it would read as such an escape. Empty
// for an empty name.
QString xmlElementName(const QString& name);

} // namespace vantorelle::http
