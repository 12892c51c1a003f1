#include "common/test_support.h"
#include "portal_client.h"
#include "sim/portal_server.h"
#include "version.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace vantorelle;
using sim::HttpResponse;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");

PortalResult await(const std::function<void(PortalClient::Callback)>& call)
{
    std::optional<PortalResult> result;
    call([&](const PortalResult& r) { result = r; });
    (void)QTest::qWaitFor([&] { return result.has_value(); }, 10000);
    return result.value_or(PortalResult{});
}

PortalResult signIn(PortalClient& client, const QString& password = "hunter22")
{
    return await([&](auto done) { client.signIn(kEmail, password, done); });
}

} // namespace

class TestPortalClient : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    const QString m_sessionPath = m_dir.filePath("config/session.json");
    std::unique_ptr<sim::PortalServer> m_portal;

private Q_SLOTS:
    void init()
    {
        m_portal = std::make_unique<sim::PortalServer>();
        QVERIFY(m_portal->start());
        m_portal->addAccount(kEmail, "hunter22");
        QFile::remove(m_sessionPath);
    }
    void requestAsSent()
    {
        PortalClient client(m_portal->baseUrl() + "/");
        await([&](auto done) { client.sendCommand("d1", "horn", {{"n", 1}}, done); });
        const sim::HttpRequest sent = m_portal->http().requests().constLast();
        QCOMPARE(sent.method + ' ' + sent.path + ' ' + sent.body,
                 R"(POST /devices/d1/cmd/horn {"args":{"n":1}})");
        QCOMPARE(sent.header("User-Agent"), "Vantorelle-OBS/" + pluginVersion().toUtf8());
        QCOMPARE(sent.header("Accept"), "application/json");
        QCOMPARE(sent.header("Content-Type"), "application/json");
    }
    // A code gives its sentence whatever the status (even 403); a status without a code gives
    // its own, before the detail.
    void errorText_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<int>("status"); // -1: only the code
        QTest::addColumn<QString>("detail");
        QTest::addColumn<QString>("message");
        auto row = [](const char* code, int status, const char* detail, const char* message) {
            QTest::addRow("%s %d", code, status)
                << QString(code) << status << QString(detail) << QString(message);
        };
        row("invalid_credentials", -1, "",
            "That email and password did not match. Check them and try again.");
        row("invalid_totp_code", -1, "",
            "That code was not accepted. Enter the current 6-digit code from your authenticator "
            "app.");
        row("rate_limited", 429, "x", "Too many attempts. Wait a minute and try again.");
        row("cloud_subscription_required", 402, "x",
            "This device needs an active Vantorelle cloud plan for that.");
        row("device_unreachable_or_timeout", 504, "x",
            "The device did not answer. Check that it is powered on and online.");
        row("gateway_unreachable", 502, "x",
            "The Vantorelle service could not reach the live data feed. Try again shortly.");
        row("device_not_found_or_not_owned", -1, "", "That device is not on this account.");
        row("claim_code_device_mismatch", -1, "", "That device is not on this account.");
        row("not_authenticated", 401, "x", "You have been signed out. Sign in again.");
        row("", 403, "x", "Your account role is not allowed to do that.");
        row("", 0, "x", "Could not reach Vantorelle. Check your internet connection.");
        row("", 400, "Name is too long.", "Name is too long.");
        row("", 418, "", "Vantorelle returned an error (418).");
    }
    void errorText()
    {
        QFETCH(QString, code);
        QFETCH(int, status);
        QFETCH(QString, detail);
        QFETCH(QString, message);
        if (!code.isEmpty())
            QCOMPARE(portalErrorText(403, code, "x"), message);
        if (status >= 0)
            QCOMPARE(portalErrorText(status, "", detail), message);
    }
    void errorFromReply()
    {
        PortalClient client(m_portal->baseUrl());
        client.setTransferTimeout(300);
        // Success, status, code and message of a reply with `body`; status 0 never answers.
        auto reply = [&](int status, const char* body) {
            HttpResponse response = HttpResponse::text(body, status, "application/json");
            response.stall = status == 0;
            m_portal->setFailure("/devices", response);
            const PortalResult r = await([&](auto done) { client.listDevices(done); });
            return QStringList{r.ok ? "ok" : "failed", QString::number(r.status), r.error,
                               r.message};
        };
        QCOMPARE(reply(400, R"({"detail":{"error":"rate_limited"},"error":"invalid_totp_code"})"),
                 QStringList({"failed", "400", "rate_limited",
                              "Too many attempts. Wait a minute and try again."}));
        QCOMPARE(reply(0, ""),
                 QStringList({"failed", "0", "",
                              "Could not reach Vantorelle. Check your internet connection."}));
    }
    void signInAndOut()
    {
        m_portal->addAccount(kEmail, "hunter22", "viewer", "123456");
        PortalClient client(m_portal->baseUrl());
        QSignalSpy spy(&client, &PortalClient::signedInChanged);
        const PortalResult first = signIn(client);
        QVERIFY(first.ok && first.data.value("totp_required").toBool() && !client.isSignedIn());
        auto code = [&](const char* digits) {
            const QString challenge = first.data.value("challenge_id").toString();
            return await([&](auto done) { client.signInWithCode(challenge, digits, done); });
        };
        QCOMPARE(code("000000").error, "invalid_totp_code");
        QCOMPARE(spy.count(), 0);
        QVERIFY(code("123456").ok);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(client.email() + ' ' + client.role(), kEmail + " viewer");
        // A refused sign-in signs nobody out.
        QCOMPARE(signIn(client, "wrong").error, "invalid_credentials");
        QVERIFY(client.isSignedIn() && spy.count() == 1);
        // A data route's 401 does, once.
        m_portal->fail("/devices", 401);
        for (int i = 0; i < 2; ++i)
            QCOMPARE(await([&](auto done) { client.listDevices(done); }).status, 401);
        QCOMPARE(spy.count(), 2);
        QVERIFY(!client.isSignedIn());
    }
    void sessionSurvivesRestart()
    {
        PortalClient client(m_portal->baseUrl());
        client.jar()->setPath(m_sessionPath);
        QVERIFY(signIn(client).ok);
        const QByteArray saved = test::readFile(m_sessionPath);
        QVERIFY(saved.startsWith("[\"vt_session=") && !saved.contains('\n'));
#ifdef Q_OS_WIN
        QCOMPARE(test::accessEntries(m_sessionPath),
                 QStringList({"(A;;FA;;;" + test::currentUserSid(), "(A;;FA;;;SY"}));
#else
        QCOMPARE(QFileInfo(m_sessionPath).permissions(),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
#endif
        client.signOut();
        QVERIFY(!client.isSignedIn() && !QFile::exists(m_sessionPath));
        QTRY_COMPARE(m_portal->http().requestCount("POST", "/auth/logout"), 1);
        // A start-up refusal that arrives after a new sign-in leaves the new cookie alone.
        HttpResponse refusal = HttpResponse::json({{"error", "not_authenticated"}}, 401);
        refusal.delayMs = 500;
        m_portal->setFailure("/auth/me", refusal);
        std::optional<PortalResult> restored;
        client.restoreSession([&](const PortalResult& result) { restored = result; });
        QVERIFY(signIn(client).ok && !restored);
        QTRY_COMPARE(restored->status, 401);
        QVERIFY(client.isSignedIn());
        QCOMPARE(client.jar()->cookies().size(), 1);
        QVERIFY(QFile::exists(m_sessionPath));
    }
    void jarSaving()
    {
        QDir().mkpath(QFileInfo(m_sessionPath).path());
        const QString expired = "a=1; expires=Thu, 01-Jan-2015 00:00:00 GMT; domain=127.0.0.1";
        const QString unexpired = "c=3; expires=Thu, 01-Jan-2099 00:00:00 GMT; domain=127.0.0.1";
        const QString session = "b=2; domain=127.0.0.1; path=/";
        PortalClient::Jar jar;
        jar.setPath(m_sessionPath);
        auto saved = [&](const QJsonArray& cookies) {
            test::writeFile(m_sessionPath, QJsonDocument(cookies).toJson());
            jar.load();
            jar.save();
            return test::readFile(m_sessionPath);
        };
        QCOMPARE(saved({expired, unexpired, session}),
                 "[\"" + unexpired + "\",\"" + session + "\"]");
        QCOMPARE(saved({expired}), "[]");
        // A failed write leaves the file as it was.
        jar.setSaveWriter([](QIODevice&, const QByteArray&) { return false; });
        QCOMPARE(saved({session}), QJsonDocument(QJsonArray{session}).toJson());
    }
};

QTEST_GUILESS_MAIN(TestPortalClient)
#include "tst_portal_client.moc"
