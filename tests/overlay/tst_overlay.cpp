// The scorebug page in a real headless Chromium, driven over the DevTools protocol, following a
// real sharing server fed with envelopes.

#include "browser/headless_browser.h"
#include "common/live_data_support.h"
#include "hosted_server.h"
#include "live_data.h"

#include <QJsonArray>
#include <QTest>

#include <algorithm>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

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
        const QString chromium = findChromium();
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
        QCOMPARE(browser.evaluate(page, RecorderScript), QJsonValue(true));

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
