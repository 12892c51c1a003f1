#include "common/live_data_support.h"
#include "live/live_data.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <memory>
#include <vector>

using namespace vantorelle;
using vantorelle::test::jsonObject;
using vantorelle::test::jsonText;

namespace {

QJsonObject fieldsOf(const LiveData& live)
{
    return live.toJson().value("fields").toObject();
}

QJsonObject parseLine(const QByteArray& line)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
    return error.error == QJsonParseError::NoError ? doc.object() : QJsonObject{{"unparsed", true}};
}

} // namespace

class TestLiveData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Each row starts from sport "basketball" with clock "5:00" and home_score "1".
    void apply_data()
    {
        QTest::addColumn<QByteArray>("envelope");
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QString>("sport");
        QTest::addColumn<QByteArray>("fields");
        QTest::addColumn<QStringList>("changedNames");
        QTest::addColumn<bool>("changed");

        const QByteArray seeded = jsonText("{'clock':'5:00','home_score':'1'}");
        QTest::newRow("heartbeat only") << jsonText("{'type':'heartbeat'}") << true << "basketball"
                                        << seeded << QStringList() << false;
        QTest::newRow("unknown type") << jsonText("{'type':'data','fields':{'clock':'0:01'}}")
                                      << false << "basketball" << seeded << QStringList() << false;
        QTest::newRow("type in other case")
            << jsonText("{'type':'State','fields':{'clock':'0:01'}}") << false << "basketball"
            << seeded << QStringList() << false;
        QTest::newRow("empty envelope")
            << QByteArray("{}") << false << "basketball" << seeded << QStringList() << false;
        QTest::newRow("number becomes text")
            << jsonText("{'type':'state','fields':{'home_score':3}}") << true << "basketball"
            << jsonText("{'clock':'5:00','home_score':'3'}") << QStringList{"home_score"} << true;
        QTest::newRow("same value again") << jsonText("{'fields':{'home_score':1}}") << true
                                          << "basketball" << seeded << QStringList() << false;
        QTest::newRow("top level, no fields or data")
            << jsonText("{'home_score':4,'seq':9,'ts_ms':100}") << true << "basketball"
            << jsonText("{'clock':'5:00','home_score':'4'}") << QStringList{"home_score"} << true;
        QTest::newRow("object and array skipped, null empty")
            << jsonText("{'fields':{'a':{'x':1},'b':[1],'clock':null}}") << true << "basketball"
            << jsonText("{'clock':'','home_score':'1'}") << QStringList{"clock"} << true;
        QTest::newRow("empty sport, empty fields")
            << jsonText("{'sport':'','fields':{}}") << true << "basketball" << seeded
            << QStringList() << false;
        QTest::newRow("fields not an object takes data")
            << jsonText("{'fields':'x','data':{'period':2}}") << true << "basketball"
            << jsonText("{'clock':'5:00','home_score':'1','period':'2'}") << QStringList{"period"}
            << true;
        QTest::newRow("fields wins over data")
            << jsonText("{'fields':{'period':1},'data':{'period':2}}") << true << "basketball"
            << jsonText("{'clock':'5:00','home_score':'1','period':'1'}") << QStringList{"period"}
            << true;
        QTest::newRow("message keys never become fields")
            << QByteArray(jsonText(
                   "{'fields':{'type':'x','seq':1,'ts_ms':2,'v':1,'sport':'hockey','online':true,"
                   "'device_ts_ms':3,'fw_version':'1.2','transport':'usb','Seq':5}}"))
            << true << "basketball" << jsonText("{'Seq':'5','clock':'5:00','home_score':'1'}")
            << QStringList{"Seq"} << true;
        QTest::newRow("sport alone") << jsonText("{'sport':'hockey'}") << true << "hockey" << seeded
                                     << QStringList() << true;
        QTest::newRow("names in key order, booleans as words")
            << jsonText("{'type':'auth_ok','fields':{'b':true,'a':false,'home_score':'1'}}") << true
            << "basketball" << jsonText("{'a':'false','b':'true','clock':'5:00','home_score':'1'}")
            << QStringList{"a", "b"} << true;
    }
    void apply()
    {
        QFETCH(QByteArray, envelope);
        QFETCH(bool, accepted);
        QFETCH(QString, sport);
        QFETCH(QByteArray, fields);
        QFETCH(QStringList, changedNames);
        QFETCH(bool, changed);

        LiveData live;
        QVERIFY(live.apply(jsonObject(
            jsonText("{'sport':'basketball','fields':{'clock':'5:00','home_score':1}}"))));
        const QDateTime seededAt = live.updatedAt();
        QSignalSpy changedSpy(&live, &LiveData::changed);
        QSignalSpy namesSpy(&live, &LiveData::fieldsChanged);

        QCOMPARE(live.apply(jsonObject(envelope)), accepted);
        QCOMPARE(live.sport(), sport);
        QCOMPARE(fieldsOf(live), jsonObject(fields));
        QCOMPARE(changedSpy.count(), changed ? 1 : 0);
        QCOMPARE(namesSpy.count(), changedNames.isEmpty() ? 0 : 1);
        if (!changedNames.isEmpty())
            QCOMPARE(namesSpy.first().first().toStringList(), changedNames);
        if (accepted)
            QVERIFY(live.updatedAt() >= seededAt);
        else
            QCOMPARE(live.updatedAt(), seededAt);
    }

    void heartbeatMovesUpdateTime()
    {
        LiveData live;
        QVERIFY(!live.updatedAt().isValid());
        QVERIFY(live.apply(jsonObject(jsonText("{'type':'heartbeat'}"))));
        QVERIFY(live.updatedAt().isValid());
        QCOMPARE(live.updatedAt().timeSpec(), Qt::UTC);
        QVERIFY(qAbs(live.updatedAt().msecsTo(QDateTime::currentDateTimeUtc())) < 60000);
    }

    void numberText_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("text");
        QTest::newRow("integral double") << QByteArray("3.0") << "3";
        QTest::newRow("negative") << QByteArray("-7") << "-7";
        QTest::newRow("negative zero") << QByteArray("-0") << "0";
        QTest::newRow("negative zero double") << QByteArray("-0.0") << "0";
        QTest::newRow("1e20") << QByteArray("1e20") << "100000000000000000000";
        QTest::newRow("-1e21") << QByteArray("-1e21") << "-1000000000000000000000";
        QTest::newRow("2^70") << QByteArray("1180591620717411303424") << "1180591620717411303424";
        QTest::newRow("past 2^53") << QByteArray("9007199254740993") << "9007199254740992";
        QTest::newRow("fraction") << QByteArray("2.5") << "2.5";
        QTest::newRow("six digits") << QByteArray("1234567.5") << "1.23457e+06";
        QTest::newRow("small") << QByteArray("0.1") << "0.1";
        QTest::newRow("tiny") << QByteArray("1e-7") << "1e-07";
        QTest::newRow("rounded") << QByteArray("3.14159265") << "3.14159";
    }
    void numberText()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, text);
        LiveData live;
        QVERIFY(live.apply(jsonObject(jsonText("{'fields':{'n':") + json + "}}")));
        QCOMPARE(live.value("n"), text);
    }

    void clearEmptiesFieldsAndSportButKeepsSource()
    {
        LiveData live;
        live.setSource("USB");
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'hockey','fields':{'home_score':2}}"))));
        QSignalSpy changedSpy(&live, &LiveData::changed);
        QSignalSpy namesSpy(&live, &LiveData::fieldsChanged);

        live.clear();
        QCOMPARE(namesSpy.count(), 1);
        QCOMPARE(namesSpy.first().first().toStringList(), QStringList());
        QCOMPARE(changedSpy.count(), 1);
        QVERIFY(live.fieldNames().isEmpty());
        QCOMPARE(live.sport(), QString());
        QVERIFY(!live.updatedAt().isValid());
        QCOMPARE(live.source(), QString("USB"));

        live.clear();
        QCOMPARE(changedSpy.count(), 1);
        QCOMPARE(namesSpy.count(), 1);
    }

    void clearOfAnEmptyModelKeepsTheUpdateTime()
    {
        LiveData live;
        QVERIFY(live.apply(jsonObject(jsonText("{'type':'heartbeat'}"))));
        const QDateTime at = live.updatedAt();
        QSignalSpy changedSpy(&live, &LiveData::changed);
        live.clear();
        QCOMPARE(changedSpy.count(), 0);
        QCOMPARE(live.updatedAt(), at);
    }

    void clearOfSportAloneSignals()
    {
        LiveData live;
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'hockey'}"))));
        QSignalSpy changedSpy(&live, &LiveData::changed);
        live.clear();
        QCOMPARE(changedSpy.count(), 1);
    }

    void sourceSignalsOnlyOnChange()
    {
        LiveData live;
        QSignalSpy spy(&live, &LiveData::sourceChanged);
        live.setSource("Cloud");
        live.setSource("Cloud");
        QCOMPARE(spy.count(), 1);
        QCOMPARE(live.toJson().value("source").toString(), QString("Cloud"));
    }

    // Receivers run after the lock is released, so they may read the model.
    void receiversMayReadTheModel()
    {
        LiveData live;
        QString seen;
        connect(&live, &LiveData::changed, this,
                [&] { seen = live.toJson().value("sport").toString(); });
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'volleyball'}"))));
        QCOMPARE(seen, QString("volleyball"));
    }

    void snapshotBeforeAnyUpdate()
    {
        LiveData live;
        const QJsonObject expected{
            {"sport", ""}, {"fields", QJsonObject()}, {"source", ""}, {"updated_at", ""}};
        QCOMPARE(live.toJson(), expected);
        QCOMPARE(live.toJsonLine(),
                 jsonText("{'sport':'','fields':{},'source':'','updated_at':''}\n"));
    }

    void snapshotLineKeepsKeyOrder()
    {
        LiveData live;
        live.setSource("USB");
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'hockey','fields':{'b':'x','a':1}}"))));
        const QString at = live.toJson().value("updated_at").toString();
        QVERIFY2(QRegularExpression("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$")
                     .match(at)
                     .hasMatch(),
                 qPrintable(at));
        QCOMPARE(QDateTime::fromString(at, Qt::ISODateWithMs), live.updatedAt());
        QCOMPARE(
            live.toJsonLine(),
            jsonText("{'sport':'hockey','fields':{'a':'1','b':'x'},'source':'USB','updated_at':'") +
                at.toUtf8() + "\"}\n");
    }

    void snapshotLineEscapes_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("quote and backslash") << QString("say \"hi\" \\o/");
        QTest::newRow("line breaks and tab") << QString("a\nb\r\tc");
        QTest::newRow("other controls") << QString("\x01\x08\x0c\x1f\x7f");
        QTest::newRow("nul") << QString(QChar(0)) + "x";
        QTest::newRow("non-ASCII") << QString("Über 3:0 — ½ 😀 \u2028");
        QTest::newRow("lone surrogates") << QString(QChar(0xd800)) + "x" + QChar(0xdc01);
    }
    void snapshotLineEscapes()
    {
        QFETCH(QString, text);
        LiveData live;
        live.setSource(text);
        QVERIFY(live.apply(QJsonObject{{"sport", text}, {"fields", QJsonObject{{text, text}}}}));
        const QByteArray line = live.toJsonLine();
        QVERIFY(line.endsWith('\n'));
        const QByteArray body = line.chopped(1);
        for (const char c : body)
            QVERIFY2(static_cast<unsigned char>(c) >= 0x20, line.toHex().constData());
        QVERIFY(QString::fromUtf8(body).toUtf8() == body); // valid UTF-8
        QCOMPARE(parseLine(body), live.toJson());
        QCOMPARE(live.value(text), text);
    }

    // Worker threads apply envelopes while this thread reads; the notifications arrive queued.
    void concurrentApplyAndRead()
    {
        constexpr int threads = 4;
        constexpr int rounds = 2000;
        LiveData live;
        int notified = 0;
        connect(&live, &LiveData::fieldsChanged, this,
                [&](const QStringList& names) { notified += int(names.size()); });

        std::vector<std::unique_ptr<QThread>> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back(QThread::create([&live, t] {
                const QString name = QStringLiteral("t%1").arg(t);
                for (int i = 0; i < rounds; ++i)
                    live.apply({{"sport", "hockey"}, {"fields", QJsonObject{{name, i}}}});
            }));
            workers.back()->start();
        }
        auto running = [&] {
            return std::any_of(workers.begin(), workers.end(),
                               [](const auto& w) { return !w->isFinished(); });
        };
        int reads = 0;
        while (running()) {
            const QJsonObject line = parseLine(live.toJsonLine());
            QVERIFY(line.value("fields").isObject());
            for (const QString& name : live.fieldNames())
                QVERIFY(!live.value(name).isEmpty());
            ++reads;
        }
        for (auto& w : workers)
            QVERIFY(w->wait());

        for (int t = 0; t < threads; ++t)
            QCOMPARE(live.value(QStringLiteral("t%1").arg(t)), QString::number(rounds - 1));
        QCOMPARE(live.fieldNames().size(), threads);
        QTRY_COMPARE(notified, threads * rounds);
        QVERIFY(reads > 0);
    }
};

QTEST_GUILESS_MAIN(TestLiveData)
#include "tst_live_data.moc"
