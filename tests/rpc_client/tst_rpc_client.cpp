#include "common/scripted_rpc_transport.h"
#include "rpc_client.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace vantorelle;
using namespace Qt::StringLiterals;

class tst_RpcClient : public QObject
{
    Q_OBJECT
    const QJsonObject m_busy{{"code", "busy"}, {"message", "The device is busy"}};
    std::unique_ptr<test::ScriptedRpcTransport> m_transport;
    std::unique_ptr<RpcClient> m_client;
    QStringList m_answers; // "tag result" or "tag code: message" for every answer, in order
    void call(const QString& tag, int timeoutMs = 5000)
    {
        const auto record = [this, tag](const RpcResult& r) {
            m_answers << tag + " " +
                             (r.ok ? QJsonDocument(r.result).toJson(QJsonDocument::Compact)
                                   : r.code + ": " + r.message);
        };
        m_client->call(tag, {{"n", 1}}, record, timeoutMs);
    }
    QStringList sent(const char* key) const
    {
        QStringList values;
        for (const QJsonObject& request : m_transport->requests())
            values << request.value(key).toVariant().toString();
        return values;
    }
    // Unanswered until its deadline, by which every shorter timer started before has fired.
    void settle()
    {
        m_transport->stayQuiet();
        call("settle", 60);
        QTRY_VERIFY(m_answers.last().startsWith("settle"));
    }
private Q_SLOTS:
    void init()
    {
        m_answers.clear();
        m_client.reset();
        m_transport = std::make_unique<test::ScriptedRpcTransport>();
        m_client = std::make_unique<RpcClient>(m_transport.get());
        m_client->setBusyRetryDelay(30);
    }
    // One request on the wire at a time; ids run on and wrap past the largest to 1.
    void framing()
    {
        m_client->setNextId(2147483647);
        m_transport->answerOk();
        m_transport->answerOk();
        call("getStatus");
        call("setWifi");
        QCOMPARE(m_transport->rawRequests(),
                 QList{R"({"id":2147483647,"method":"getStatus","params":{"n":1}})"_ba});
        QTRY_COMPARE(m_answers, QStringList({"getStatus {}", "setWifi {}"}));
        QCOMPARE(m_transport->rawRequests().last(),
                 R"({"id":1,"method":"setWifi","params":{"n":1}})"_ba);
    }
    // Every reply answers its request once: a later copy finds nothing to answer.
    void replies_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QString>("answer");
        const auto row = [](const char* reply, const char* answer) {
            QTest::newRow(reply) << QByteArray(reply) << answer;
        };
        const char* rejected = "a device_error: The device rejected 'a'";
        const char* late = "a timeout: The device did not answer 'a' in time";
        row(R"({"id":1,"ok":true,"result":{"x":1}})", R"(a {"x":1})");
        row(R"({"id":1,"ok":true,"result":42})", R"(a {"value":42})");
        row(R"({"id":1,"ok":true,"result":null})", R"(a {"value":null})");
        row(R"({"id":1,"ok":true})", "a {}");
        row(R"({"id":1,"result":{}})", rejected);
        row(R"({"id":1,"ok":false,"error":{"code":"bad","message":"No"}})", "a bad: No");
        row(R"({"id":1,"ok":false,"error":{"message":"No"}})", "a device_error: No");
        row(R"({"id":"1","ok":true})", late);
        row(R"({"id":2,"ok":true})", late);
    }
    void replies()
    {
        QFETCH(QByteArray, reply);
        m_transport->answer([reply](const QJsonObject&) { return reply; });
        call("a", 50);
        QTRY_COMPARE(m_answers.size(), 1);
        QTEST(m_answers[0], "answer");
        m_transport->deliver(R"({"id":1,"ok":true})");
        settle();
        QCOMPARE(m_answers.size(), 2);
    }
    // A busy request goes again after a pause that nothing overtakes; the fourth busy is final.
    void busyRetries_data()
    {
        QTest::addColumn<int>("busyReplies");
        QTest::addColumn<QString>("answer");
        QTest::newRow("three busy, then the answer") << 3 << "a {}";
        QTest::newRow("four busy") << 4 << "a busy: The device is busy";
    }
    void busyRetries()
    {
        QFETCH(int, busyReplies);
        for (int i = 0; i < busyReplies; ++i)
            m_transport->answerError(m_busy);
        m_transport->answerOk();
        m_transport->answerOk();
        QSignalSpy replies(m_transport.get(), &RpcTransport::message);
        QElapsedTimer elapsed;
        elapsed.start();
        call("a");
        QTRY_COMPARE(replies.size(), 1);
        call("next");
        QCOMPARE(m_transport->rawRequests().size(), 1); // held until the retry goes
        QTRY_COMPARE(m_answers.size(), 2);
        QVERIFY(elapsed.elapsed() >= 3 * 30);
        QTEST(m_answers[0], "answer");
        QCOMPARE(sent("id"), QStringList({"1", "2", "3", "4", "5"}));
        QCOMPARE(sent("method"), QStringList({"a", "a", "a", "a", "next"}));
    }
    // A failure reported from the event loop or from inside send() answers that request once;
    // a closed transport fails what is queued, in order, and what comes later, at once.
    void transportTrouble()
    {
        m_transport->fail("write_failed", "Could not write", false);
        m_transport->fail("write_failed", "Could not write", true);
        m_transport->answer([this](const QJsonObject&) {
            m_transport->setOpen(false);
            return R"({"id":3,"ok":true})"_ba;
        });
        for (const char* tag : {"a", "b", "c", "d", "e"})
            call(tag, 50);
        QTRY_COMPARE(m_answers.size(), 5);
        call("f");
        const QString failed = " write_failed: Could not write";
        const QString closed = " disconnected: Not connected to a device";
        QCOMPARE(m_answers, QStringList({"a" + failed, "b" + failed, "c {}", "d" + closed,
                                         "e" + closed, "f" + closed}));
        m_transport->setOpen(true);
        settle(); // the deadlines of a and b must not answer them again
        QCOMPARE(m_answers.size(), 7);
        QCOMPARE(sent("method"), QStringList({"a", "b", "c", "settle"}));
    }
    // Cancelling fails what is in flight, what is queued and what waits out a busy pause, once.
    void cancelAll()
    {
        m_transport->stayQuiet();
        m_transport->answerError(m_busy);
        call("a", 50);
        call("b");
        m_client->cancelAll("disconnected", "Gone");
        m_transport->deliver(R"({"id":1,"ok":true})"); // too late
        QSignalSpy replies(m_transport.get(), &RpcTransport::message);
        call("c");
        QTRY_COMPARE(replies.size(), 2); // the late one, then busy
        m_client->cancelAll("disconnected", "Gone");
        settle(); // longer than a's deadline and the pause: nothing goes or answers again
        QCOMPARE(m_answers.first(3), QStringList({"a disconnected: Gone", "b disconnected: Gone",
                                                  "c disconnected: Gone"}));
        QCOMPARE(m_answers.size(), 4);
        QCOMPARE(sent("method"), QStringList({"a", "c", "settle"}));
    }
};

QTEST_GUILESS_MAIN(tst_RpcClient)
#include "tst_rpc_client.moc"
