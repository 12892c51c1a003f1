#include "live_data.h"
#include "score_template.h"

#include <QJsonObject>
#include <QTest>

using namespace vantorelle;

class TestScoreTemplate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // `rendered` is the text with a hockey model holding home_score 3, period "2nd", a field whose
    // value looks like a placeholder and one with markup; `bare` is the text without any model.
    void render_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("rendered");
        QTest::addColumn<QString>("bare");
        auto row = [](const char* text, const char* rendered, const char* bare) {
            QTest::newRow(*text ? text : "empty")
                << QString::fromUtf8(text) << QString::fromUtf8(rendered)
                << QString::fromUtf8(bare);
        };
        row("{home_score} - {away_score}", "3 - ", " - ");
        row("{ home_score } {home score}", "{ home_score } {home score}",
            "{ home_score } {home score}");
        row("{home-score}{}", "{home-score}{}", "{home-score}{}");
        row("{{home_score}}", "{3}", "{}");
        row("{home_score", "{home_score", "{home_score");
        row("{sport}", "hockey", "");
        row("", "", "");
        row("[{nothing}]", "[]", "[]");
        row("{HOME_SCORE}", "", "");
        row("{home_score}{home_score}", "33", "");
        row("{trick}", "{home_score}", "");
        row("<{markup}>", "<<b>&amp;>", "<>");
        row("Ä{period}€", "Ä2nd€", "Ä€");
    }
    void render()
    {
        QFETCH(QString, text);
        QFETCH(QString, rendered);
        QFETCH(QString, bare);
        LiveData live;
        QVERIFY(live.apply(QJsonObject{{"sport", "hockey"},
                                       {"fields", QJsonObject{{"home_score", 3},
                                                              {"trick", "{home_score}"},
                                                              {"markup", "<b>&amp;"},
                                                              {"period", "2nd"}}}}));
        QCOMPARE(renderScoreTemplate(text, &live), rendered);
        QCOMPARE(renderScoreTemplate(text, static_cast<const LiveData*>(nullptr)), bare);
    }
};

QTEST_GUILESS_MAIN(TestScoreTemplate)
#include "tst_score_template.moc"
