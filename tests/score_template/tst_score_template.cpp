#include "live/live_data.h"
#include "obs/score_template.h"

#include <QJsonObject>
#include <QTest>

using namespace vantorelle;

class TestScoreTemplate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void render_data()
    {
        QTest::addColumn<QString>("templateText");
        QTest::addColumn<QString>("rendered");
        QTest::newRow("missing away score") << "{home_score} - {away_score}"
                                            << "3 - ";
        QTest::newRow("blanks inside braces") << "{ home_score } {home score}"
                                              << "{ home_score } {home score}";
        QTest::newRow("hyphen and empty braces") << "{home-score}{}"
                                                 << "{home-score}{}";
        QTest::newRow("nested braces") << "{{home_score}}"
                                       << "{3}";
        QTest::newRow("unclosed") << "{home_score"
                                  << "{home_score";
        QTest::newRow("sport is the model's sport") << "{sport}"
                                                    << "hockey";
        QTest::newRow("empty template") << ""
                                        << "";
        QTest::newRow("unknown name") << "[{nothing}]"
                                      << "[]";
        QTest::newRow("names are case-sensitive") << "{HOME_SCORE}"
                                                  << "";
        QTest::newRow("adjacent") << "{home_score}{home_score}"
                                  << "33";
        QTest::newRow("no second pass") << "{trick}"
                                        << "{home_score}";
        QTest::newRow("values inserted as they are") << "<{markup}>"
                                                     << "<<b>&amp;>";
        QTest::newRow("text around non-ASCII") << "Ä{period}€"
                                               << "Ä2nd€";
        QTest::newRow("no placeholders") << "Final"
                                         << "Final";
    }
    void render()
    {
        QFETCH(QString, templateText);
        QFETCH(QString, rendered);
        LiveData live;
        QVERIFY(live.apply(QJsonObject{{"sport", "hockey"},
                                       {"fields", QJsonObject{{"home_score", 3},
                                                              {"trick", "{home_score}"},
                                                              {"markup", "<b>&amp;"},
                                                              {"period", "2nd"}}}}));
        QCOMPARE(renderScoreTemplate(templateText, &live), rendered);
    }

    void withoutModelPlaceholdersAreEmpty()
    {
        QCOMPARE(renderScoreTemplate("{home_score} - {away_score}", nullptr), QString(" - "));
        QCOMPARE(renderScoreTemplate("{sport}|{ x }", nullptr), QString("|{ x }"));
    }

    void followsTheModel()
    {
        LiveData live;
        const QString text = DefaultScoreTemplate;
        QCOMPARE(renderScoreTemplate(text, &live), QString(" - "));
        QVERIFY(
            live.apply(QJsonObject{{"fields", QJsonObject{{"home_score", 1}, {"away_score", 0}}}}));
        QCOMPARE(renderScoreTemplate(text, &live), QString("1 - 0"));
        live.clear();
        QCOMPARE(renderScoreTemplate(text, &live), QString(" - "));
    }
};

QTEST_GUILESS_MAIN(TestScoreTemplate)
#include "tst_score_template.moc"
