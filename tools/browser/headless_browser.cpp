#include "browser/headless_browser.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTimer>

#include <algorithm>
#include <chrono>

namespace vantorelle::test {

QString findChromium()
{
    return QStandardPaths::findExecutable(QStringLiteral("chromium"));
}

double epochMs()
{
    using namespace std::chrono;
    return double(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) /
           1000.0;
}

bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    QTimer wake;
    wake.setSingleShot(true);
    wake.callOnTimeout([] {});
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        wake.start(int(std::max<qint64>(1, deadline.remainingTime())));
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        // Outside an event loop's exec() nothing else deletes what was handed to deleteLater().
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

// The frame time is taken in the first animation frame callback after a change: the frame the
// page paints showing it.
const char RecorderScript[] = R"js(
window.seen = [];
window.waiters = [];
window.settle = function () {
  var waiting = window.waiters;
  window.waiters = [];
  waiting.forEach(function (check) { check(); });
};
window.waitCount = function (count, n, ms) {
  return new Promise(function (resolve) {
    var timer = ms ? setTimeout(function () { timer = 0; resolve(count()); }, ms) : 0;
    (function check() {
      if (ms && !timer)
        return;
      if (count() < n)
        return window.waiters.push(check);
      clearTimeout(timer);
      resolve(count());
    })();
  });
};
window.waitSeen = function (n, ms) {
  return waitCount(function () { return window.seen.length; }, n, ms);
};
window.waitPainted = function (n, ms) {
  return waitCount(function () {
    return window.seen.filter(function (entry) { return entry.length > 2; }).length;
  }, n, ms);
};
new MutationObserver(function (records) {
  var at = performance.timeOrigin + performance.now();
  records.forEach(function (record) {
    record.addedNodes.forEach(function (node) { window.seen.push([node.textContent, at]); });
  });
  requestAnimationFrame(function () {
    var frame = performance.timeOrigin + performance.now();
    window.seen.forEach(function (entry) { if (entry.length == 2) entry.push(frame); });
    window.settle();
  });
  window.settle();
}).observe(document.getElementById("score"), {childList: true, characterData: true, subtree: true});
true
)js";

Browser::~Browser()
{
    if (m_socket.state() == QAbstractSocket::ConnectedState)
        call(QStringLiteral("Browser.close"));
    if (!m_process.waitForFinished(10000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool Browser::start(const QString& program)
{
    QObject::connect(&m_socket, &QWebSocket::textMessageReceived, [this](const QString& text) {
        const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
        if (message.contains(QLatin1String("id")))
            m_replies.insert(message[QLatin1String("id")].toInt(), message);
    });
    // Root may not use the sandbox; the page is our own.
    m_process.start(program,
                    {"--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--no-first-run", "--disable-extensions", "--remote-debugging-port=0",
                     "--user-data-dir=" + m_profile.path(), "about:blank"});
    QByteArray errors;
    const QRegularExpression listening(QStringLiteral("DevTools listening on (ws://\\S+)"));
    QRegularExpressionMatch match;
    const bool up = waitFor(
        [&] {
            errors += m_process.readAllStandardError();
            match = listening.match(QString::fromUtf8(errors));
            return match.hasMatch() || m_process.state() == QProcess::NotRunning;
        },
        60000);
    if (!up || !match.hasMatch()) {
        qWarning().noquote() << "chromium did not offer DevTools:" << errors;
        return false;
    }
    // What it says later is not kept.
    QObject::connect(&m_process, &QProcess::readyReadStandardError,
                     [this] { m_process.readAllStandardError(); });
    m_socket.open(QUrl(match.captured(1)));
    return waitFor([&] { return m_socket.state() == QAbstractSocket::ConnectedState; }, 20000);
}

QJsonValue Browser::call(const QString& method, const QJsonObject& params, const QString& session)
{
    const int id = ++m_lastId;
    QJsonObject message{{"id", id}, {"method", method}, {"params", params}};
    if (!session.isEmpty())
        message[QLatin1String("sessionId")] = session;
    m_socket.sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson()));
    (void)waitFor([&] { return m_replies.contains(id); }, 30000);
    return QJsonValue(m_replies.take(id));
}

QString Browser::open(const QString& url)
{
    const QString target =
        call("Target.createTarget", {{"url", url}})["result"]["targetId"].toString();
    return call("Target.attachToTarget",
                {{"targetId", target}, {"flatten", true}})["result"]["sessionId"]
        .toString();
}

QJsonValue Browser::evaluate(const QString& session, const QString& expression)
{
    const QJsonValue reply = call(
        "Runtime.evaluate",
        {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}}, session);
    return reply["result"]["result"]["value"];
}

} // namespace vantorelle::test
