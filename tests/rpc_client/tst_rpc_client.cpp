#include "admin/rpc_client.h"
#include "common/scripted_rpc_transport.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace vantorelle;
using vantorelle::test::ScriptedRpcTransport;
using namespace Qt::StringLiterals;

namespace {

const QJsonObject kBusy{{"code", "busy"}, {"message", "The device is busy"}};

} // namespace

class tst_RpcClient : public QObject
{
    Q_OBJECT

    struct Answer
    {
        QString tag;
        RpcResult result;
    };

    std::unique_ptr<ScriptedRpcTransport> m_transport;
    std::unique_ptr<RpcClient> m_client;
    QList<Answer> m_answers;

    RpcClient::Callback record(const QString& tag)
    {
        return [this, tag](const RpcResult& result) { m_answers.append({tag, result}); };
    }

    QStringList tags() const
    {
        QStringList list;
        for (const Answer& answer : m_answers)
            list.append(answer.tag);
        return list;
    }

    QList<qint64> sentIds() const
    {
        QList<qint64> ids;
        for (const QJsonObject& request : m_transport->requests())
            ids.append(qint64(request.value("id").toDouble()));
        return ids;
    }

    // A request left unanswered until its deadline: once it is answered, every shorter timer
    // started before it has fired too.
    void settle(int ms = 150)
    {
        m_transport->stayQuiet();
        const qsizetype before = m_answers.size();
        m_client->call("settle", {}, record("settle"), ms);
        QTRY_COMPARE(m_answers.size(), before + 1);
    }

private Q_SLOTS:
    void init()
    {
        m_answers.clear();
        m_client.reset();
        m_transport = std::make_unique<ScriptedRpcTransport>();
        m_client = std::make_unique<RpcClient>(m_transport.get());
        m_client->setBusyRetryDelay(30);
    }

    void oneRequestAtATime()
    {
        m_transport->answerOk(QJsonObject{{"a", 1}});
        m_transport->answerOk();
        m_client->call("getStatus", {}, record("first"));
        m_client->call("setWifi", {{"ssid", "x"}}, record("second"));
        QCOMPARE(m_transport->rawRequests(),
                 QList{R"({"id":1,"method":"getStatus","params":{}})"_ba});
        QTRY_COMPARE(tags(), QStringList({"first", "second"}));
        QCOMPARE(m_transport->rawRequests().last(),
                 R"({"id":2,"method":"setWifi","params":{"ssid":"x"}})"_ba);
        QCOMPARE(m_answers[0].result.result, QJsonObject({{"a", 1}}));
    }

    void replies_data()
    {
        QTest::addColumn<QJsonObject>("reply");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QJsonObject>("result");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        const QJsonObject x{{"x", 1}};
        const QString rejected = "The device rejected 'getStatus'";

        QTest::newRow("object") << QJsonObject{{"ok", true}, {"result", x}} << true << x << ""
                                << "";
        QTest::newRow("number wrapped")
            << QJsonObject{{"ok", true}, {"result", 42}} << true << QJsonObject{{"value", 42}} << ""
            << "";
        QTest::newRow("null wrapped") << QJsonObject{{"ok", true}, {"result", QJsonValue::Null}}
                                      << true << QJsonObject{{"value", QJsonValue::Null}} << ""
                                      << "";
        QTest::newRow("no result") << QJsonObject{{"ok", true}} << true << QJsonObject() << ""
                                   << "";
        QTest::newRow("ok missing")
            << QJsonObject{{"result", x}} << false << QJsonObject() << "device_error" << rejected;
        QTest::newRow("ok not a bool")
            << QJsonObject{{"ok", "true"}} << false << QJsonObject() << "device_error" << rejected;
        QTest::newRow("error with code")
            << QJsonObject{{"ok", false},
                           {"error", QJsonObject{{"code", "bad"}, {"message", "No"}}}}
            << false << QJsonObject() << "bad"
            << "No";
        QTest::newRow("error without code")
            << QJsonObject{{"ok", false}, {"error", QJsonObject{{"message", "No"}}}} << false
            << QJsonObject() << "device_error"
            << "No";
    }

    void replies()
    {
        QFETCH(QJsonObject, reply);
        m_transport->answer([reply](const QJsonObject& request) {
            QJsonObject withId = reply;
            withId.insert("id", request.value("id"));
            return QJsonDocument(withId).toJson();
        });
        m_client->call("getStatus", {}, record("status"));
        QTRY_COMPARE(m_answers.size(), 1);
        const RpcResult& result = m_answers[0].result;
        QTEST(result.ok, "ok");
        QTEST(result.result, "result");
        QTEST(result.code, "code");
        QTEST(result.message, "message");
    }

    void unmatchedReplyEndsInTimeout_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::newRow("id as string") << R"({"id":"1","ok":true})"_ba;
        QTest::newRow("id missing") << R"({"ok":true})"_ba;
        QTest::newRow("other id") << R"({"id":2,"ok":true})"_ba;
        QTest::newRow("not JSON") << R"({"id":1,)"_ba;
        QTest::newRow("array") << R"([{"id":1,"ok":true}])"_ba;
    }

    void unmatchedReplyEndsInTimeout()
    {
        QFETCH(QByteArray, reply);
        m_transport->answer([reply](const QJsonObject&) { return reply; });
        m_client->call("getStatus", {}, record("status"), 50);
        QTRY_COMPARE(m_answers.size(), 1);
        QCOMPARE(m_answers[0].result.code, "timeout");
        QCOMPARE(m_answers[0].result.message, "The device did not answer 'getStatus' in time");
        m_transport->deliver(R"({"id":1,"ok":true})"); // too late
        settle();
        QCOMPARE(tags(), QStringList({"status", "settle"}));
    }

    void busyThreeTimesThenSuccess()
    {
        for (int i = 0; i < 3; ++i)
            m_transport->answerError(kBusy);
        m_transport->answerOk(QJsonObject{{"done", true}});
        QElapsedTimer elapsed;
        elapsed.start();
        m_client->call("reboot", {{"delay", 1}}, record("reboot"));
        QTRY_COMPARE(m_answers.size(), 1);
        QVERIFY(elapsed.elapsed() >= 3 * 30);
        QVERIFY(m_answers[0].result.ok);
        QCOMPARE(sentIds(), QList<qint64>({1, 2, 3, 4}));
        for (const QJsonObject& request : m_transport->requests())
            QCOMPARE(request.value("params").toObject(), QJsonObject({{"delay", 1}}));
    }

    void busyFourTimesFails()
    {
        for (int i = 0; i < 5; ++i)
            m_transport->answerError(kBusy);
        m_client->call("reboot", {}, record("reboot"));
        QTRY_COMPARE(m_answers.size(), 1);
        QCOMPARE(m_answers[0].result.code, "busy");
        QCOMPARE(m_answers[0].result.message, "The device is busy");
        QCOMPARE(m_transport->rawRequests().size(), 4);
    }

    void requestQueuedDuringBusyWaitGoesAfterRetry()
    {
        m_transport->answerError(kBusy);
        m_transport->answerOk();
        m_transport->answerOk();
        QSignalSpy replies(m_transport.get(), &RpcTransport::message);
        m_client->call("first", {}, record("first"));
        QTRY_COMPARE(replies.size(), 1);
        m_client->call("second", {}, record("second"));
        QCOMPARE(m_transport->rawRequests().size(), 1); // held until the retry goes
        QTRY_COMPARE(tags(), QStringList({"first", "second"}));
        QStringList methods;
        for (const QJsonObject& request : m_transport->requests())
            methods.append(request.value("method").toString());
        QCOMPARE(methods, QStringList({"first", "first", "second"}));
    }

    void closedTransportFailsQueueInOrder()
    {
        m_transport->answerOk();
        m_client->call("a", {}, record("a"));
        m_client->call("b", {}, record("b"));
        m_client->call("c", {}, record("c"));
        m_transport->setOpen(false);
        QTRY_COMPARE(tags(), QStringList({"a", "b", "c"}));
        QVERIFY(m_answers[0].result.ok);
        for (const Answer& answer : m_answers.sliced(1)) {
            QCOMPARE(answer.result.code, "disconnected");
            QCOMPARE(answer.result.message, "Not connected to a device");
        }
        m_client->call("d", {}, record("d"));
        QCOMPARE(tags().size(), 4); // at once, without sending
        QCOMPARE(m_transport->rawRequests().size(), 1);
    }

    void transportFailure_data()
    {
        QTest::addColumn<bool>("atOnce");
        QTest::newRow("from the event loop") << false;
        QTest::newRow("inside send") << true;
    }

    void transportFailure()
    {
        QFETCH(bool, atOnce);
        m_transport->fail("write_failed", "Could not write to the USB device", atOnce);
        m_transport->answerOk();
        m_client->call("a", {}, record("a"), 50);
        m_client->call("b", {}, record("b"));
        QTRY_COMPARE(tags(), QStringList({"a", "b"}));
        QCOMPARE(m_answers[0].result.code, "write_failed");
        QCOMPARE(m_answers[0].result.message, "Could not write to the USB device");
        QVERIFY(m_answers[1].result.ok);
        settle(); // a's deadline must not answer it again
        QCOMPARE(tags(), QStringList({"a", "b", "settle"}));
    }

    void cancelAllFailsInFlightThenQueue()
    {
        m_transport->stayQuiet();
        m_client->call("a", {}, record("a"), 50);
        m_client->call("b", {}, record("b"));
        m_client->call("c", {}, record("c"));
        m_client->cancelAll("disconnected", "Disconnected");
        QCOMPARE(tags(), QStringList({"a", "b", "c"}));
        for (const Answer& answer : std::as_const(m_answers))
            QCOMPARE(answer.result.message, "Disconnected");
        m_transport->deliver(R"({"id":1,"ok":true})");
        settle();
        QCOMPARE(tags(), QStringList({"a", "b", "c", "settle"}));
        QCOMPARE(sentIds(), QList<qint64>({1, 2}));
    }

    void cancelAllDuringBusyWait()
    {
        m_transport->answerError(kBusy);
        QSignalSpy replies(m_transport.get(), &RpcTransport::message);
        m_client->call("a", {}, record("a"));
        QTRY_COMPARE(replies.size(), 1);
        m_client->cancelAll("disconnected", "The connection to the device was lost");
        QCOMPARE(tags(), QStringList({"a"}));
        QCOMPARE(m_answers[0].result.message, "The connection to the device was lost");
        settle(); // longer than the retry delay: "a" must not go again
        QCOMPARE(m_transport->requests().last().value("method").toString(), "settle");
        QCOMPARE(m_transport->rawRequests().size(), 2);
    }

    void idWrapsAfterMaximum()
    {
        m_client->setNextId(2147483647);
        m_transport->answerOk();
        m_transport->answerOk();
        m_client->call("a", {}, record("a"));
        m_client->call("b", {}, record("b"));
        QTRY_COMPARE(tags(), QStringList({"a", "b"}));
        QVERIFY(m_answers[0].result.ok && m_answers[1].result.ok);
        QCOMPARE(sentIds(), QList<qint64>({2147483647, 1}));
    }

    // A callback may queue a request, and may destroy the client with requests still queued.
    void callbackQueuesAndDestroys()
    {
        m_transport->answerOk();
        m_transport->answerOk();
        m_client->call("a", {}, [this](const RpcResult& result) {
            record("a")(result);
            m_client->call("b", {}, [this](const RpcResult& result) {
                record("b")(result);
                m_client.reset();
            });
            m_client->call("c", {}, record("c"));
        });
        QTRY_COMPARE(tags(), QStringList({"a", "b"}));
        QVERIFY(!m_client);
        QCOMPARE(m_transport->rawRequests().size(), 2);
    }
};

QTEST_GUILESS_MAIN(tst_RpcClient)
#include "tst_rpc_client.moc"
