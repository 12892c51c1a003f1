#include "common/live_data_support.h"
#include "field_overlay.h"
#include "live_data.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <memory>
#include <vector>

using namespace vantorelle;
using vantorelle::test::jsonObject;
using vantorelle::test::jsonText;

class TestLiveData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Each row starts from sport "basketball" with clock "5:00" and home_score "1"; `changes` are
    // the fields the envelope changes, with their new text.
    void apply_data()
    {
        QTest::addColumn<QByteArray>("envelope");
        QTest::addColumn<QByteArray>("changes");
        QTest::addColumn<QString>("sport");
        QTest::addColumn<bool>("accepted");
        auto row = [](const char* name, const char* envelope, const char* changes = "{}",
                      const char* sport = "basketball", bool accepted = true) {
            QTest::newRow(name) << jsonText(envelope) << jsonText(changes) << QString(sport)
                                << accepted;
        };
        row("heartbeat only", "{'type':'heartbeat'}");
        row("unknown type", "{'type':'data','fields':{'clock':'0:01'}}", "{}", "basketball", false);
        row("type in other case", "{'type':'State','clock':'0:01'}", "{}", "basketball", false);
        row("empty envelope", "{}", "{}", "basketball", false);
        row("number", "{'type':'state','fields':{'home_score':3}}", "{'home_score':'3'}");
        row("same value again", "{'fields':{'home_score':1}}");
        row("top level", "{'home_score':4,'seq':9,'ts_ms':100}", "{'home_score':'4'}");
        row("object, array, null", "{'fields':{'a':{'x':1},'b':[1],'clock':null}}", "{'clock':''}");
        row("empty sport, empty fields", "{'sport':'','fields':{}}");
        row("data when fields is no object", "{'fields':'x','data':{'period':2}}",
            "{'period':'2'}");
        row("fields over data", "{'fields':{'period':1},'data':{'period':2}}", "{'period':'1'}");
        row("message keys never become fields",
            "{'fields':{'type':'x','seq':1,'ts_ms':2,'v':1,'sport':'hockey','online':true,"
            "'device_ts_ms':3,'fw_version':'1.2','transport':'usb','Seq':5}}",
            "{'Seq':'5'}");
        row("sport alone", "{'sport':'hockey'}", "{}", "hockey");
        row("names in key order, booleans as words",
            "{'type':'auth_ok','fields':{'b':true,'a':false,'home_score':'1'}}",
            "{'a':'false','b':'true'}");
        // Numbers lose needless fractions and exponents; others keep six significant digits.
        row("integral double", "{'fields':{'n':3.0}}", "{'n':'3'}");
        row("negative", "{'fields':{'n':-7}}", "{'n':'-7'}");
        row("negative zero", "{'fields':{'n':-0.0}}", "{'n':'0'}");
        row("-1e21", "{'fields':{'n':-1e21}}", "{'n':'-1000000000000000000000'}");
        row("2^70", "{'fields':{'n':1180591620717411303424}}", "{'n':'1180591620717411303424'}");
        row("fraction", "{'fields':{'n':2.5}}", "{'n':'2.5'}");
        row("six digits", "{'fields':{'n':1234567.5}}", "{'n':'1.23457e+06'}");
        row("tiny", "{'fields':{'n':1e-7}}", "{'n':'1e-07'}");
        row("rounded", "{'fields':{'n':3.14159265}}", "{'n':'3.14159'}");
    }
    void apply()
    {
        QFETCH(QByteArray, envelope);
        QFETCH(QByteArray, changes);
        QFETCH(QString, sport);
        QFETCH(bool, accepted);
        LiveData live;
        QVERIFY(live.apply(jsonObject(
            jsonText("{'sport':'basketball','fields':{'clock':'5:00','home_score':1}}"))));
        const QDateTime seededAt = live.updatedAt();
        QSignalSpy changedSpy(&live, &LiveData::changed);
        QSignalSpy namesSpy(&live, &LiveData::fieldsChanged);
        // Receivers run after the lock is released, so they may read the model.
        QString seenSport;
        connect(&live, &LiveData::changed, this, [&] { seenSport = live.sport(); });
        QCOMPARE(live.apply(jsonObject(envelope)), accepted);
        QCOMPARE(live.sport(), sport);
        QVariantMap fields{{"clock", "5:00"}, {"home_score", "1"}};
        fields.insert(jsonObject(changes).toVariantMap());
        QCOMPARE(live.toJson().value("fields").toObject().toVariantMap(), fields);
        const QStringList names = jsonObject(changes).keys();
        const bool changed = !names.isEmpty() || sport != "basketball";
        QCOMPARE(changedSpy.count(), changed ? 1 : 0);
        QCOMPARE(seenSport, changed ? sport : QString());
        QCOMPARE(namesSpy.count(), names.isEmpty() ? 0 : 1);
        if (!names.isEmpty())
            QCOMPARE(namesSpy.first().first().toStringList(), names);
        if (accepted)
            QVERIFY(live.updatedAt() >= seededAt);
        else
            QCOMPARE(live.updatedAt(), seededAt);
    }
    void clearSignalsOnlyWhenSomethingGoes()
    {
        LiveData live;
        live.setSource("USB");
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'hockey'}"))));
        QSignalSpy changedSpy(&live, &LiveData::changed);
        QSignalSpy namesSpy(&live, &LiveData::fieldsChanged);
        live.clear(); // a sport alone counts
        QCOMPARE(changedSpy.count(), 1);
        QCOMPARE(namesSpy.count(), 1);
        QCOMPARE(namesSpy.first().first().toStringList(), QStringList());
        QCOMPARE(live.sport(), QString());
        QVERIFY(!live.updatedAt().isValid());
        QCOMPARE(live.source(), QString("USB"));
        QVERIFY(live.apply(jsonObject(jsonText("{'fields':{'home_score':2}}"))));
        live.clear(); // fields alone count too
        QVERIFY(live.fieldNames().isEmpty());
        QCOMPARE(changedSpy.count(), 3);
        live.clear();
        QCOMPARE(changedSpy.count(), 3);
        QVERIFY(live.apply(jsonObject(jsonText("{'type':'heartbeat'}")))); // sets the time alone
        QVERIFY(live.updatedAt().isValid());
    }
    void snapshotLine()
    {
        LiveData live;
        QCOMPARE(live.toJsonLine(),
                 jsonText("{'sport':'','fields':{},'source':'','updated_at':''}\n"));
        QSignalSpy sourceSpy(&live, &LiveData::sourceChanged);
        live.setSource("USB");
        live.setSource("USB");
        QCOMPARE(sourceSpy.count(), 1);
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'hockey','fields':{'b':'x','a':1}}"))));
        const QDateTime at = live.updatedAt();
        QCOMPARE(at.timeSpec(), Qt::UTC);
        QVERIFY(qAbs(at.msecsTo(QDateTime::currentDateTimeUtc())) < 60000);
        const QByteArray stamp = at.toString("yyyy-MM-ddTHH:mm:ss.zzzZ").toUtf8();
        QCOMPARE(live.toJsonLine(),
                 jsonText("{'sport':'hockey','fields':{'a':'1','b':'x'},'source':'USB',"
                          "'updated_at':'") +
                     stamp + "\"}\n");
        QCOMPARE(jsonObject(live.toJsonLine()), live.toJson());
        // Escaped, the line has no raw control characters and reads back as the stored text.
        const QString text = QString::fromUtf8("\"\\\n\r\t\b\f\x1f\x7f\xc3\x9c\xf0\x9f\x98\x80") +
                             QChar(0) + QChar(0xd800) + "x" + QChar(0xdc01);
        live.setSource(text);
        QVERIFY(live.apply(QJsonObject{{"sport", text}, {"fields", QJsonObject{{text, text}}}}));
        const QByteArray escaped = "\"\\\"\\\\\\n\\r\\t\\b\\f\\u001f\x7f\xc3\x9c\xf0\x9f\x98\x80"
                                   "\\u0000\\ud800x\\udc01\"";
        QCOMPARE(live.toJsonLine().left(escaped.size() + 9), "{\"sport\":" + escaped);
        QCOMPARE(jsonObject(live.toJsonLine()), live.toJson());
        QCOMPARE(live.value(text), text);
    }
    // The operator's fields lie over the device's and holds over both; the device's data goes
    // on underneath and shows again when a hold ends. Signals only when what is shown changes.
    void operatorFieldsAndHolds()
    {
        LiveData live;
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'hockey','fields':{'home_score':1,"
                                               "'away_score':2,'home_name':'HOME'}}"))));
        FieldOverlay shown(&live);
        QSignalSpy names(&shown, &FieldOverlay::fieldsChanged);
        QSignalSpy changed(&shown, &FieldOverlay::changed);
        QSignalSpy saved(&shown, &FieldOverlay::operatorChanged);

        QVERIFY(shown.setField("home_name", "Harbor Hawks"));
        QVERIFY(shown.setField("sponsor", "Acme Tools"));
        QVERIFY(shown.hold("away_score", "3"));
        QCOMPARE(names.count(), 3);
        QCOMPARE(names[2][0].toStringList(), QStringList{"away_score"});
        QCOMPARE(saved.count(), 3);
        const QByteArray head =
            jsonText("{'sport':'hockey','fields':{'away_score':'3','home_name':"
                     "'Harbor Hawks','home_score':'1','sponsor':'Acme Tools'},");
        QCOMPARE(shown.toJsonLine().left(head.size()), head);
        QCOMPARE(live.value("home_name"), "HOME"); // the device's own data stays apart

        // The device changes the held field and another one: only the other one is news.
        QVERIFY(live.apply(jsonObject(jsonText("{'fields':{'away_score':5,'home_score':4}}"))));
        QCOMPARE(names.count(), 4);
        QCOMPARE(names[3][0].toStringList(), QStringList{"home_score"});
        QVERIFY(live.apply(jsonObject(jsonText("{'fields':{'away_score':6}}"))));
        QCOMPARE(changed.count(), 4);
        QCOMPARE(shown.value("away_score"), "3");
        QVERIFY(shown.isHeld("away_score"));
        shown.release("away_score");
        QCOMPARE(shown.value("away_score"), "6");
        QCOMPARE(names.count(), 5);
        QVERIFY(live.apply(jsonObject(jsonText("{'sport':'basketball'}")))); // sport alone
        QCOMPARE(changed.count(), 6);

        // Holding a value the field shows anyway, or setting a field again: nothing to show.
        QVERIFY(shown.hold("home_score", "4"));
        QVERIFY(shown.setField("sponsor", "Acme Tools"));
        QCOMPARE(changed.count(), 6);
        QCOMPARE(saved.count(), 5);
        shown.releaseAll();
        shown.releaseAll();
        QCOMPARE(saved.count(), 6);
        shown.removeField("home_name"); // the device's value comes back
        QCOMPARE(shown.value("home_name"), "HOME");
        shown.removeField("sponsor"); // gone altogether: every name may have changed
        QCOMPARE(names.last()[0].toStringList(), QStringList());
        QCOMPARE(shown.fieldNames(), QStringList({"away_score", "home_name", "home_score"}));
        QCOMPARE(saved.count(), 8);
    }
    void operatorLimits()
    {
        LiveData live;
        FieldOverlay shown(&live);
        for (const QString& bad :
             QStringList{"", "home score", "h\u00e9", "{x}", "home\n", QString(65, 'a')})
            QVERIFY2(!shown.setField(bad, "1") && !shown.hold(bad, "1"), qPrintable(bad));
        QVERIFY(shown.setField(QString(64, 'a'), QString(1000, 'x')));
        QVERIFY(!shown.setField("long", QString(1001, 'x')));
        QMap<QString, QString> many;
        for (int i = 0; i < 150; ++i)
            many.insert(QString("f%1").arg(i, 3, 10, QChar('0')), "v");
        many.insert("bad name", "v");
        shown.restore(many, {{"away_score", QString(1001, 'x')}, {"home_score", "2"}});
        QCOMPARE(shown.operatorFields().size(), 100);
        QCOMPARE(shown.operatorFields().lastKey(), "f099");
        QCOMPARE(shown.holds(), (QMap<QString, QString>{{"home_score", "2"}}));
        QVERIFY(!shown.setField("f100", "v"));
        QVERIFY(shown.setField("f099", "changed")); // an existing one may change
    }
    // Worker threads apply envelopes while this thread reads; the notifications arrive queued.
    void concurrentApplyAndRead()
    {
        LiveData live;
        int notified = 0;
        connect(&live, &LiveData::fieldsChanged, this,
                [&](const QStringList& names) { notified += int(names.size()); });
        std::vector<std::unique_ptr<QThread>> workers;
        for (const QString name : {"a", "b", "c", "d"}) {
            workers.emplace_back(QThread::create([&live, name] {
                for (int i = 1; i <= 2000; ++i)
                    live.apply({{"sport", "hockey"}, {"fields", QJsonObject{{name, i}}}});
            }));
            workers.back()->start();
        }
        int reads = 0;
        while (reads++ == 0 || !std::all_of(workers.begin(), workers.end(),
                                            [](const auto& w) { return w->isFinished(); })) {
            QVERIFY(jsonObject(live.toJsonLine()).value("fields").isObject());
            for (const QString& name : live.fieldNames())
                QVERIFY(!live.value(name).isEmpty());
        }
        for (auto& w : workers)
            QVERIFY(w->wait());
        QCOMPARE(live.toJson().value("fields").toObject(),
                 jsonObject(jsonText("{'a':'2000','b':'2000','c':'2000','d':'2000'}")));
        QTRY_COMPARE(notified, 4 * 2000);
    }
};

QTEST_GUILESS_MAIN(TestLiveData)
#include "tst_live_data.moc"
