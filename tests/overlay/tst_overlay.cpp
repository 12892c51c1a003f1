// The scorebug page in a real headless Chromium, driven over the DevTools protocol, following a
// real sharing server fed with envelopes.

#include "common/live_data_support.h"
#include "hosted_server.h"
#include "live_data.h"

#include <QDebug>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocket>

#include <algorithm>
#include <chrono>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

// Milliseconds since the epoch, with a fraction: the clock the page's performance.timeOrigin
// counts from.
double epochMs()
{
    using namespace std::chrono;
    return double(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) /
           1000.0;
}

// Records every text the score element shows, with the page's time of the change, and lets a
// caller wait until a number of changes have been seen.
const char Recorder[] = R"js(
window.seen = [];
window.waiters = [];
window.waitSeen = function (n) {
  return new Promise(function (resolve) {
    (function check() {
      if (window.seen.length >= n) resolve(window.seen.length); else window.waiters.push(check);
    })();
  });
};
new MutationObserver(function (records) {
  var at = performance.timeOrigin + performance.now();
  records.forEach(function (record) {
    record.addedNodes.forEach(function (node) { window.seen.push([node.textContent, at]); });
  });
  var waiting = window.waiters;
  window.waiters = [];
  waiting.forEach(function (check) { check(); });
}).observe(document.getElementById("score"), {childList: true, characterData: true, subtree: true});
true
)js";

// A headless Chromium with its DevTools connection. Calls wait with the event loop turning, so
// that the server in this process keeps serving the page.
class Browser
{
public:
    ~Browser()
    {
        if (m_socket.state() == QAbstractSocket::ConnectedState)
            call("Browser.close");
        if (!m_process.waitForFinished(10000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }

    bool start(const QString& program)
    {
        QObject::connect(&m_socket, &QWebSocket::textMessageReceived, [this](const QString& text) {
            const QJsonObject message = jsonObject(text.toUtf8());
            if (message.contains("id"))
                m_replies.insert(message["id"].toInt(), message);
        });
        // Root may not use the sandbox; the page is our own.
        m_process.start(program, {"--headless=new", "--no-sandbox", "--disable-gpu",
                                  "--disable-dev-shm-usage", "--no-first-run",
                                  "--disable-extensions", "--remote-debugging-port=0",
                                  "--user-data-dir=" + m_profile.path(), "about:blank"});
        QByteArray errors;
        const QRegularExpression listening("DevTools listening on (ws://\\S+)");
        QRegularExpressionMatch match;
        const bool up = QTest::qWaitFor(
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
        m_socket.open(QUrl(match.captured(1)));
        return QTest::qWaitFor([&] { return m_socket.state() == QAbstractSocket::ConnectedState; },
                               20000);
    }

    // Sends one DevTools command and returns its reply ("result" or "error"); empty when none
    // came within 30 s.
    QJsonValue call(const QString& method, const QJsonObject& params = {},
                    const QString& session = {})
    {
        const int id = ++m_lastId;
        QJsonObject message{{"id", id}, {"method", method}, {"params", params}};
        if (!session.isEmpty())
            message["sessionId"] = session;
        m_socket.sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson()));
        (void)QTest::qWaitFor([&] { return m_replies.contains(id); }, 30000);
        return QJsonValue(m_replies.take(id));
    }

    // Opens `url` in a new page and returns the session that talks to it.
    QString open(const QString& url)
    {
        const QString target =
            call("Target.createTarget", {{"url", url}})["result"]["targetId"].toString();
        return call("Target.attachToTarget",
                    {{"targetId", target}, {"flatten", true}})["result"]["sessionId"]
            .toString();
    }

    // The value of a script expression in the page (promises are awaited).
    QJsonValue evaluate(const QString& session, const QString& expression)
    {
        const QJsonValue reply = call(
            "Runtime.evaluate",
            {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}}, session);
        return reply["result"]["result"]["value"];
    }

private:
    QTemporaryDir m_profile;
    QProcess m_process;
    QWebSocket m_socket;
    QHash<int, QJsonObject> m_replies;
    int m_lastId = 0;
};

double percentile(QList<double> values, double share)
{
    std::sort(values.begin(), values.end());
    return values.at(std::min<qsizetype>(values.size() - 1, qsizetype(share * values.size())));
}

} // namespace

class TestOverlay : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Fifty envelopes, each changing the score: the page shows every one, in order, and comes
    // back after the server restarts. How long each took from envelope to page is printed. The
    // page is served by an HTTP-only server, as a browser source is best served.
    void pageFollowsTheScore()
    {
        const QString chromium = QStandardPaths::findExecutable("chromium");
        if (chromium.isEmpty())
            QSKIP("chromium is not installed (Debian package chromium, see scripts/install-deps)");
        LiveData live;
        HostedServer server(&live);
        server.setHttpOnly(true);
        connect(&live, &LiveData::changed, &server, &HostedServer::broadcast);
        QVERIFY(server.start(0, false));
        const quint16 port = server.serverPort();
        QVERIFY(live.apply(
            jsonObject(jsonText("{'sport':'hockey','fields':{'home_score':0,'away_score':0}}"))));

        Browser browser;
        QVERIFY(browser.start(chromium));
        const QString page =
            browser.open(QString("http://127.0.0.1:%1/overlay?template={home_score}%20-%20"
                                 "{away_score}&font=Arial&size=64&color=%23ffffff"
                                 "&background=transparent")
                             .arg(port));
        QVERIFY(!page.isEmpty());
        const QString text = "document.getElementById('score').textContent";
        QTRY_COMPARE_WITH_TIMEOUT(browser.evaluate(page, text).toString(), QString("0 - 0"), 30000);
        QCOMPARE(browser.evaluate(page, Recorder), QJsonValue(true));

        QList<double> sent;
        for (int score = 1; score <= 50; ++score) {
            sent << epochMs();
            QVERIFY(live.apply(QJsonObject{{"fields", QJsonObject{{"home_score", score}}}}));
            QCOMPARE(browser.evaluate(page, QString("waitSeen(%1)").arg(score)).toInt(), score);
        }
        const QJsonArray seen =
            QJsonDocument::fromJson(
                browser.evaluate(page, "JSON.stringify(seen)").toString().toUtf8())
                .array();
        QCOMPARE(seen.size(), 50);
        QList<double> latencies;
        for (int i = 0; i < 50; ++i) {
            QCOMPARE(seen[i][0].toString(), QString("%1 - 0").arg(i + 1));
            latencies << seen[i][1].toDouble() - sent[i];
        }
        qDebug("envelope to page over 50 changes: median %.2f ms, p95 %.2f ms, max %.2f ms",
               percentile(latencies, 0.5), percentile(latencies, 0.95),
               *std::max_element(latencies.begin(), latencies.end()));

        // The page follows the stream again once the server is back.
        server.stop();
        QVERIFY(server.start(port, false));
        QVERIFY(live.apply(QJsonObject{{"fields", QJsonObject{{"away_score", 7}}}}));
        QTRY_COMPARE_WITH_TIMEOUT(browser.evaluate(page, text).toString(), QString("50 - 7"),
                                  30000);

        // On a port shared with line clients the page comes up as well: a spare connection the
        // browser opened there and used later may have been greeted as a line client, and the
        // page then starts over.
        HostedServer shared(&live);
        connect(&live, &LiveData::changed, &shared, &HostedServer::broadcast);
        QVERIFY(shared.start(0, false));
        const QString sharedPage = browser.open(
            QString("http://127.0.0.1:%1/overlay?template={away_score}").arg(shared.serverPort()));
        QTRY_COMPARE_WITH_TIMEOUT(browser.evaluate(sharedPage, text).toString(), QString("7"),
                                  30000);

        // Markup in the template is shown as text, never run.
        const QString hostile = browser.open(
            QString("http://127.0.0.1:%1/overlay?template=%3Cimg%20src%3Dx%20onerror%3D%22"
                    "document.title%3D1%22%3E{home_score}&font=x%3C/style%3E")
                .arg(port));
        QTRY_COMPARE_WITH_TIMEOUT(browser.evaluate(hostile, text).toString(),
                                  QString("<img src=x onerror=\"document.title=1\">50"), 30000);
        QCOMPARE(browser.evaluate(hostile, "document.querySelectorAll('img').length").toInt(-1), 0);
        QCOMPARE(browser.evaluate(hostile, "document.title").toString(),
                 QString("Vantorelle scorebug"));
    }
};

QTEST_GUILESS_MAIN(TestOverlay)
#include "tst_overlay.moc"
