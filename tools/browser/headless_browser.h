#pragma once

// A real headless Chromium playing OBS's browser source (which is Chromium too), driven over the
// DevTools protocol: the overlay test and the live-path benchmark open the scorebug page in it.

#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QWebSocket>

#include <functional>

namespace vantorelle::test {

// The chromium program on the path; empty when there is none.
QString findChromium();

// Milliseconds since the epoch, with a fraction: the clock the page's performance.timeOrigin
// counts from, so that a time taken here and one taken in the page can be subtracted.
double epochMs();

// Turns the event loop until `done` holds (true) or `timeoutMs` passes (false). It waits for
// events rather than sleeping, so that servers in this process answer the page at once.
bool waitFor(const std::function<bool()>& done, int timeoutMs);

// A script for a page showing the score in #score: records every text the element shows, in
// `seen`, as [text, time shown, time of the first animation frame after] (epoch milliseconds,
// the frame time once that frame has come). waitSeen(n) and waitPainted(n) resolve with the
// count once n texts were shown, or n painted; with a second argument, after that many
// milliseconds at most. Evaluates to true.
extern const char RecorderScript[];

// A headless Chromium with its DevTools connection. Calls wait with the event loop turning, so
// that a server in this process keeps serving the page.
class Browser
{
public:
    ~Browser();

    bool start(const QString& program);

    // Sends one DevTools command and returns its reply ("result" or "error"); empty when none
    // came within 30 s.
    QJsonValue call(const QString& method, const QJsonObject& params = {},
                    const QString& session = {});

    // Opens `url` in a new page and returns the session that talks to it.
    QString open(const QString& url);

    // The value of a script expression in the page (promises are awaited).
    QJsonValue evaluate(const QString& session, const QString& expression);

private:
    QTemporaryDir m_profile;
    QProcess m_process;
    QWebSocket m_socket;
    QHash<int, QJsonObject> m_replies;
    int m_lastId = 0;
};

} // namespace vantorelle::test
