#include "common/test_support.h"
#include "core/version.h"
#include "portal/portal_client.h"
#include "sim/feed_certificate.h"
#include "sim/portal_server.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>

#include <optional>
#include <sys/stat.h>

using namespace vantorelle;
using sim::HttpResponse;

Q_DECLARE_METATYPE(vantorelle::sim::HttpResponse)

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");

// Reaches routes that have no named call.
class ProbeClient : public PortalClient
{
public:
    using PortalClient::PortalClient;
    using PortalClient::request;
};

PortalResult await(const std::function<void(PortalClient::Callback)>& call)
{
    std::optional<PortalResult> result;
    call([&](const PortalResult& r) { result = r; });
    (void)QTest::qWaitFor([&] { return result.has_value(); }, 10000);
    return result.value_or(PortalResult{});
}

PortalResult signIn(PortalClient& client, const QString& password = kPassword)
{
    return await([&](auto done) { client.signIn(kEmail, password, done); });
}

} // namespace

class TestPortalClient : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_portal = std::make_unique<sim::PortalServer>();
        QVERIFY(m_portal->start());
        m_portal->addAccount(kEmail, kPassword, QStringLiteral("admin"));
        m_sessionPath = m_dir.filePath(QStringLiteral("config/session.json"));
    }

    void errorText_data()
    {
        QTest::addColumn<HttpResponse>("response");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("message");
        const auto json = [](const char* body, int status) {
            return HttpResponse::text(body, status, "application/json");
        };
        const QString totp = QStringLiteral("That code was not accepted. Enter the current "
                                            "6-digit code from your authenticator app.");
        QTest::newRow("429 without code") << HttpResponse::text({}, 429) << QString()
                                          << "Too many attempts. Wait a minute and try again.";
        QTest::newRow("400 detail string")
            << json(R"({"detail":"Name is too long."})", 400) << QString() << "Name is too long.";
        QTest::newRow("418 empty body")
            << HttpResponse::text({}, 418) << QString() << "Vantorelle returned an error (418).";
        QTest::newRow("code in detail") << json(R"({"detail":{"error":"invalid_totp_code"}})", 400)
                                        << "invalid_totp_code" << totp;
        QTest::newRow("top-level code")
            << json(R"({"error":"invalid_totp_code"})", 400) << "invalid_totp_code" << totp;
        QTest::newRow("detail code wins")
            << json(R"({"detail":{"error":"invalid_totp_code"},"error":"invalid_credentials"})",
                    400)
            << "invalid_totp_code" << totp;
        QTest::newRow("403 with known code")
            << json(R"({"detail":{"error":"device_not_found_or_not_owned"}})", 403)
            << "device_not_found_or_not_owned"
            << "That device is not on this account.";
        QTest::newRow("403 plain") << json(R"({"detail":"Forbidden"})", 403) << QString()
                                   << "Your account role is not allowed to do that.";
        HttpResponse stalled;
        stalled.stall = true;
        QTest::newRow("time-out") << stalled << QString()
                                  << "Could not reach Vantorelle. Check your internet connection.";
    }

    void errorText()
    {
        QFETCH(HttpResponse, response);
        QFETCH(QString, error);
        QFETCH(QString, message);
        m_portal->setFailure(QStringLiteral("/devices"), response);
        PortalClient client(m_portal->baseUrl());
        client.setTransferTimeout(300);
        const PortalResult result = await([&](auto done) { client.listDevices(done); });
        QVERIFY(!result.ok);
        QCOMPARE(result.status, response.stall ? 0 : response.status);
        QCOMPARE(result.error, error);
        QCOMPARE(result.message, message);
    }

    void unauthorizedSignsOutOnce()
    {
        PortalClient client(m_portal->baseUrl());
        QVERIFY(signIn(client).ok);
        QSignalSpy spy(&client, &PortalClient::signedInChanged);
        m_portal->fail(QStringLiteral("/devices"), 401);
        for (int i = 0; i < 2; ++i) {
            const PortalResult result = await([&](auto done) { client.listDevices(done); });
            QCOMPARE(result.message, "You have been signed out. Sign in again.");
        }
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy.at(0).at(0).toBool(), false);
        QVERIFY(!client.isSignedIn());
    }

    void wrongPasswordStaysQuiet()
    {
        PortalClient client(m_portal->baseUrl());
        QVERIFY(signIn(client).ok);
        QSignalSpy spy(&client, &PortalClient::signedInChanged);
        const PortalResult result = signIn(client, QStringLiteral("wrong"));
        QCOMPARE(result.status, 401);
        QCOMPARE(result.error, "invalid_credentials");
        QCOMPARE(spy.count(), 0);
        QVERIFY(client.isSignedIn());
    }

    void secondStep()
    {
        m_portal->addAccount(kEmail, kPassword, QStringLiteral("viewer"), QStringLiteral("123456"));
        PortalClient client(m_portal->baseUrl());
        QSignalSpy spy(&client, &PortalClient::signedInChanged);
        const PortalResult first = signIn(client);
        QVERIFY(first.ok);
        QVERIFY(first.data.value("totp_required").toBool());
        QVERIFY(!client.isSignedIn());
        const QString challenge = first.data.value("challenge_id").toString();
        auto code = [&](const QString& digits) {
            return await([&](auto done) { client.signInWithCode(challenge, digits, done); });
        };
        QCOMPARE(code(QStringLiteral("000000")).error, "invalid_totp_code");
        QCOMPARE(spy.count(), 0);
        QVERIFY(code(QStringLiteral("123456")).ok);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(client.email(), kEmail);
        QCOMPARE(client.role(), "viewer");
    }

    void sessionSurvivesRestart()
    {
        PortalClient first(m_portal->baseUrl());
        first.jar()->setPath(m_sessionPath);
        QVERIFY(signIn(first).ok);
        const QByteArray saved = test::readFile(m_sessionPath);
        QVERIFY(saved.startsWith("[\"vt_session="));
        QVERIFY(!saved.contains('\n'));
        struct stat info
        {};
        QCOMPARE(::stat(QFile::encodeName(m_sessionPath).constData(), &info), 0);
        QCOMPARE(info.st_mode & 0777, 0600u);

        PortalClient second(m_portal->baseUrl());
        second.jar()->setPath(m_sessionPath);
        second.jar()->load();
        QVERIFY(await([&](auto done) { second.restoreSession(done); }).ok);
        QVERIFY(second.isSignedIn());
        QCOMPARE(second.email(), kEmail);

        second.signOut();
        QVERIFY(!second.isSignedIn());
        QVERIFY(!QFile::exists(m_sessionPath));
        QTRY_COMPARE(m_portal->http().requestCount("POST", QStringLiteral("/auth/logout")), 1);

        // The portal ended the shared session, so the first client's restore clears its jar.
        const PortalResult stale = await([&](auto done) { first.restoreSession(done); });
        QCOMPARE(stale.status, 401);
        QVERIFY(first.jar()->cookies().isEmpty());
    }

    void jarSaving_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("expired only")
            << "a=1; expires=Thu, 01-Jan-2015 00:00:00 GMT; domain=127.0.0.1; path=/"
            << QByteArray("[]");
        QTest::newRow("session cookie kept") << "b=2; domain=127.0.0.1; path=/"
                                             << QByteArray(R"(["b=2; domain=127.0.0.1; path=/"])");
    }

    void jarSaving()
    {
        QFETCH(QString, stored);
        QFETCH(QByteArray, expected);
        test::writeFile(m_sessionPath, QJsonDocument(QJsonArray{stored}).toJson());
        PortalClient::Jar jar;
        jar.setPath(m_sessionPath);
        jar.load();
        QCOMPARE(jar.cookies().size(), 1);
        jar.save();
        QCOMPARE(test::readFile(m_sessionPath), expected);

        // A failed write leaves the file as it was.
        test::writeFile(m_sessionPath, "untouched");
        jar.setSaveWriter([](QIODevice&, const QByteArray&) { return false; });
        jar.save();
        QCOMPARE(test::readFile(m_sessionPath), QByteArray("untouched"));
    }

    void parsers()
    {
        const QJsonArray devices{QJsonObject{{"nickname", "No id"}},
                                 QJsonObject{{"device_id", "dev-1"}, {"nickname", "Gym"}}};
        const QList<PortalDevice> parsed =
            PortalClient::parseDevices({true, 200, {{"devices", devices}}, {}, {}});
        QCOMPARE(parsed.size(), 1);
        QCOMPARE(parsed.at(0).nickname, "Gym");

        PortalClient client(m_portal->baseUrl());
        QVERIFY(signIn(client).ok);
        m_portal->addOutput(kEmail, {{"id", "o1"}, {"share_token", "tok"}, {"height", 720}});
        const PortalResult result = await([&](auto done) { client.listOutputs(done); });
        const QList<GraphicsOutput> outputs = client.parseOutputs(result);
        QCOMPARE(outputs.size(), 1);
        QCOMPARE(outputs.at(0).width, 1920);
        QCOMPARE(outputs.at(0).height, 720);
        QCOMPARE(outputs.at(0).url, m_portal->baseUrl() + "/graphics/o/tok");
    }

    void deviceCalls()
    {
        PortalClient client(m_portal->baseUrl());
        QVERIFY(signIn(client).ok);
        m_portal->addDevice(kEmail,
                            {.id = QStringLiteral("dev-1"), .nickname = QStringLiteral("Gym")});
        auto state = [&](const QString& id) {
            return await([&](auto done) { client.deviceState(id, done); });
        };
        QCOMPARE(state(QStringLiteral("dev-1")).data.value("type").toString(), "pending");
        m_portal->setLiveData(QStringLiteral("dev-1"), QStringLiteral("basketball"),
                              {{"home_score", "12"}});
        QCOMPARE(state(QStringLiteral("dev-1")).data.value("online").toBool(), true);
        QCOMPARE(state(QStringLiteral("dev-2")).message, "That device is not on this account.");

        const QJsonObject config{{"sport", "hockey"}};
        QVERIFY(await([&](auto done) { client.setConfig("dev-1", config, done); }).ok);
        QCOMPARE(m_portal->deviceConfig(QStringLiteral("dev-1")), config);
        m_portal->fail(QStringLiteral("/devices/dev-1/cmd/horn"), 402);
        const PortalResult horn =
            await([&](auto done) { client.sendCommand("dev-1", "horn", {}, done); });
        QCOMPARE(horn.error, "cloud_subscription_required");
    }

    void customVerbAndHeaders()
    {
        ProbeClient client(m_portal->baseUrl());
        await([&](auto done) {
            client.request("DELETE", QStringLiteral("/devices/dev-1"), QJsonObject{{"a", 1}}, done,
                           true);
        });
        const sim::HttpRequest sent = m_portal->http().requests().constLast();
        QCOMPARE(sent.method, "DELETE");
        QCOMPARE(sent.body, "{\"a\":1}");
        QCOMPARE(sent.header("User-Agent"), "Vantorelle-OBS/" + pluginVersion().toUtf8());
        QCOMPARE(sent.header("Accept"), "application/json");
        QCOMPARE(sent.header("Content-Type"), "application/json");
    }

    void overTls()
    {
        const QSslCertificate certificate(QByteArray(sim::kFeedCertificatePem), QSsl::Pem);
        const QSslKey key(QByteArray(sim::kFeedPrivateKeyPem), QSsl::Ec, QSsl::Pem);
        sim::PortalServer portal;
        QVERIFY(portal.startTls(certificate, key));
        portal.addAccount(kEmail, kPassword);
        portal.addDevice(kEmail,
                         {.id = QStringLiteral("dev-1"), .nickname = QStringLiteral("Gym")});

        PortalClient untrusting(portal.baseUrl());
        QCOMPARE(signIn(untrusting).status, 0);

        PortalClient client(portal.baseUrl());
        client.addTrustedCertificates({certificate});
        QVERIFY(signIn(client).ok);
        const PortalResult devices = await([&](auto done) { client.listDevices(done); });
        QCOMPARE(PortalClient::parseDevices(devices).size(), 1);
    }

private:
    QTemporaryDir m_dir;
    QString m_sessionPath;
    std::unique_ptr<sim::PortalServer> m_portal;
};

QTEST_GUILESS_MAIN(TestPortalClient)
#include "tst_portal_client.moc"
