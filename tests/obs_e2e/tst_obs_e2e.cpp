// The plug-in in a real OBS front end: OBS starts with the plug-in and its websocket server, a
// score text is added through the websocket, the simulated portal changes the score, and the
// source's pictures follow it.

#include "common/test_support.h"
#include "obs_websocket.h"
#include "portal/portal_client.h"
#include "screenshot/x11_screenshot.h"
#include "sim/portal_server.h"

#include <QBuffer>
#include <QDir>
#include <QImage>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kDevice = QStringLiteral("vt-e2e-0001");
const QString kInput = QStringLiteral("E2E Score");

QImage decodeScreenshot(const QJsonObject& response)
{
    const QString data = response.value("imageData").toString();
    const qsizetype comma = data.indexOf(QLatin1Char(','));
    return QImage::fromData(QByteArray::fromBase64(data.mid(comma + 1).toLatin1()), "PNG");
}

} // namespace

class TestObsEndToEnd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void scoreTextFollowsThePortal();
    void cleanupTestCase();

private:
    QImage sourcePicture();
    QString logText() const;
    void setScore(int home, int away);

    QTemporaryDir m_dir;
    sim::PortalServer m_portal;
    QProcess m_obs;
    ObsWebSocket m_socket;
    quint16 m_sharingPort = 0;
};

void TestObsEndToEnd::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(m_portal.start());
    m_portal.addAccount(QStringLiteral("e2e@example.com"), QStringLiteral("e2e-password"));
    m_portal.addDevice(QStringLiteral("e2e@example.com"), {kDevice, QStringLiteral("E2E Court")});
    setScore(1, 0);

    // The plug-in restores this sign-in from its session file at load.
    const QString session = m_dir.filePath(QStringLiteral("session.json"));
    {
        PortalClient client(m_portal.baseUrl());
        client.jar()->setPath(session);
        bool done = false;
        client.signIn(QStringLiteral("e2e@example.com"), QStringLiteral("e2e-password"),
                      [&](const PortalResult& result) {
                          QVERIFY2(result.ok, qPrintable(result.message));
                          done = true;
                      });
        QTRY_VERIFY(done);
    }
    m_sharingPort = freePort();
    const QString settings = m_dir.filePath(QStringLiteral("settings.json"));
    writeFile(settings, QJsonDocument(QJsonObject{{"selected_device", kDevice},
                                                  {"server_enabled", true},
                                                  {"server_port", int(m_sharingPort)},
                                                  {"auto_check_updates", false}})
                            .toJson());

    const quint16 websocketPort = freePort();
    const QString config = m_dir.filePath(QStringLiteral("config"));
    QProcess profile;
    profile.start(QStringLiteral(VANTORELLE_SOURCE_DIR "/scripts/obs-profile"),
                  {config, QStringLiteral("--plugin"), QStringLiteral(VANTORELLE_PLUGIN_ROOT),
                   QStringLiteral("--settings"), settings, QStringLiteral("--session"), session,
                   QStringLiteral("--websocket-port"), QString::number(websocketPort)});
    QVERIFY(profile.waitForFinished(30000));
    QCOMPARE(profile.exitCode(), 0);

    const QString prefix = QStringLiteral(VANTORELLE_OBS_PREFIX);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), config);
    env.insert(QStringLiteral("LD_LIBRARY_PATH"),
               prefix + QStringLiteral("/lib:") + prefix + QStringLiteral("/lib/x86_64-linux-gnu"));
    env.insert(QStringLiteral("VANTORELLE_PORTAL_URL"), m_portal.baseUrl());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("LIBGL_ALWAYS_SOFTWARE"), QStringLiteral("1"));
    m_obs.setProcessEnvironment(env);
    m_obs.setWorkingDirectory(prefix + QStringLiteral("/bin"));
    m_obs.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_obs.start(prefix + QStringLiteral("/bin/obs"),
                {QStringLiteral("--disable-shutdown-check"), QStringLiteral("--multi")});
    QVERIFY(m_obs.waitForStarted(10000));
    QVERIFY2(m_socket.connectTo(websocketPort, 90000), "OBS's websocket server did not answer");
}

void TestObsEndToEnd::setScore(int home, int away)
{
    m_portal.setLiveData(kDevice, QStringLiteral("hockey"),
                         {{"home_score", home}, {"away_score", away}, {"period", 2}});
}

QImage TestObsEndToEnd::sourcePicture()
{
    QString error;
    const std::optional<QJsonObject> shot =
        m_socket.request(QStringLiteral("GetSourceScreenshot"),
                         {{"sourceName", kInput}, {"imageFormat", "png"}}, &error);
    if (!shot) {
        qWarning() << error;
        return {};
    }
    return decodeScreenshot(*shot);
}

QString TestObsEndToEnd::logText() const
{
    const QDir logs(m_dir.filePath(QStringLiteral("config/obs-studio/logs")));
    QString text;
    for (const QString& name : logs.entryList({QStringLiteral("*.txt")}, QDir::Files, QDir::Time))
        text += QString::fromUtf8(readFile(logs.filePath(name)));
    return text;
}

void TestObsEndToEnd::scoreTextFollowsThePortal()
{
    QVERIFY(logText().contains(QStringLiteral("[vantorelle] loading plugin 1.0.1")));

    QString error;
    const std::optional<QJsonObject> scene =
        m_socket.request(QStringLiteral("GetCurrentProgramScene"), {}, &error);
    QVERIFY2(scene, qPrintable(error));
    const QJsonObject font{{"face", "DejaVu Sans"}, {"size", 96}, {"style", "Bold"}, {"flags", 0}};
    QVERIFY2(
        m_socket.request(QStringLiteral("CreateInput"),
                         {{"sceneName", scene->value("currentProgramSceneName")},
                          {"inputName", kInput},
                          {"inputKind", "vantorelle_text"},
                          {"inputSettings", QJsonObject{{"template", "{home_score} - {away_score}"},
                                                        {"font", font}}}},
                         &error),
        qPrintable(error));

    // The plug-in follows the selected device through the portal and shares what it shows.
    LineClient sharing;
    QVERIFY(sharing.connectTo(QStringLiteral("127.0.0.1"), m_sharingPort, 30000));
    const auto waitForHomeScore = [&](const QString& score) {
        for (int i = 0; i < 60; ++i) {
            const QJsonObject line = sharing.readObject(1000);
            if (line.value("fields").toObject().value("home_score").toString() == score)
                return true;
        }
        return false;
    };
    QVERIFY(waitForHomeScore(QStringLiteral("1")));

    QImage first;
    QTRY_VERIFY_WITH_TIMEOUT(!(first = sourcePicture()).isNull(), 15000);
    QTest::qWait(1500); // a few polls and frames with the same score
    QCOMPARE(sourcePicture(), first);

    setScore(2, 0);
    QVERIFY(waitForHomeScore(QStringLiteral("2")));
    QTRY_VERIFY_WITH_TIMEOUT(sourcePicture() != first, 10000);

    // Kept beside the build for people to look at: OBS with the plug-in's dock.
    const QImage window = tools::screenshotOfDisplay();
    QVERIFY(!window.isNull());
    QDir().mkpath(QStringLiteral(VANTORELLE_ARTIFACT_DIR));
    QVERIFY(window.save(QStringLiteral(VANTORELLE_ARTIFACT_DIR "/obs-window.png")));
}

void TestObsEndToEnd::cleanupTestCase()
{
    if (m_obs.state() == QProcess::NotRunning)
        return;
    // A clean shutdown runs the plug-in's unload. OBS ignores a close request while it is busy
    // in some of its own dialogs' loops, so the request is repeated.
    bool ended = false;
    for (int attempt = 0; attempt < 6 && !ended; ++attempt) {
        ::kill(pid_t(m_obs.processId()), SIGINT);
        ended = m_obs.waitForFinished(10000);
    }
    if (!ended) {
        qWarning().noquote() << "OBS did not end; the end of its log:\n" << logText().right(4000);
        m_obs.kill();
        m_obs.waitForFinished(10000);
    }
    QVERIFY(ended);
    QTRY_VERIFY_WITH_TIMEOUT(logText().contains(QStringLiteral("[vantorelle] plugin unloaded")),
                             10000);
}

QTEST_MAIN(TestObsEndToEnd)
#include "tst_obs_e2e.moc"
