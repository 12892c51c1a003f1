// The built plug-in loaded into real libobs, as OBS loads it.

#include "common/test_support.h"
#include "obs_harness.h"

#include <obs-module.h>
#include <obs.hpp>

#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

using namespace vantorelle::test;

namespace {

// A plain blocking connect: usable from inside a log handler, where no event loop may run.
bool portAccepts(quint16 port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

bool applyEnvelope(const QByteArray& json)
{
    calldata_t data;
    calldata_init(&data);
    calldata_set_string(&data, "envelope", json.constData());
    proc_handler_call(obs_get_proc_handler(), "vantorelle_apply_envelope", &data);
    const bool accepted = calldata_bool(&data, "accepted");
    calldata_free(&data);
    return accepted;
}

QString innerText(obs_source_t* inner)
{
    OBSDataAutoRelease settings = obs_source_get_settings(inner);
    return QString::fromUtf8(obs_data_get_string(settings, "text"));
}

void countUpdate(void* param, calldata_t*)
{
    static_cast<std::atomic<int>*>(param)->fetch_add(1);
}

} // namespace

class TestObsModule : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void exportsAndLoadLine();
    void leftoversOfAnUpdateAreRemoved();
    void textSourceRegistered();
    void propertiesReplaceTextWithTemplate();
    void rendersTemplateAfterEnvelope();
    void unchangedTextLeavesInnerAlone();
    void sharingServerAnswersOperations();
    void noTextSourceLogsError();
    void takenPortLogsWarning();
    void unloadClosesServerBeforeItsLine();

private:
    obs_source_t* createScoreText(const char* name, const char* templ = nullptr);
    obs_source_t* innerOf(const QList<obs_source_t*>& before);

    ObsHarness m_obs;
    QTemporaryDir m_config;
    quint16 m_serverPort = 0;
    bool m_withText = true;
    bool m_portTaken = false;
    QStringList m_leftovers;
    QTcpServer m_squatter;
    OBSSourceAutoRelease m_score;
    obs_source_t* m_inner = nullptr;
};

void TestObsModule::initTestCase()
{
    m_withText = qEnvironmentVariableIsEmpty("VANTORELLE_HARNESS_WITHOUT_TEXT");
    QVERIFY(m_config.isValid());
    m_portTaken = !qEnvironmentVariableIsEmpty("VANTORELLE_HARNESS_PORT_TAKEN");
    m_serverPort = freePort();
    if (m_portTaken)
        QVERIFY(m_squatter.listen(QHostAddress::LocalHost, m_serverPort));
    const QJsonObject settings{{"server_enabled", true}, {"server_port", m_serverPort}};
    QVERIFY(QDir().mkpath(m_config.filePath("vantorelle-obs")));
    writeFile(m_config.filePath("vantorelle-obs/settings.json"), QJsonDocument(settings).toJson());

    // Files an earlier self-update moved aside; loading the plug-in deletes them.
    m_leftovers = {ObsHarness::pluginRoot() + "/bin/64bit/vantorelle-obs.so.old",
                   ObsHarness::pluginRoot() + "/data/locale/en-US.ini.old"};
    for (const QString& file : std::as_const(m_leftovers))
        writeFile(file, "left by an update");

    QVERIFY2(m_obs.start(m_config.path()), "libobs did not start (is there an X display?)");
    if (m_withText)
        QVERIFY(m_obs.loadFreetype());
    QVERIFY(m_obs.loadPlugin());
}

obs_source_t* TestObsModule::createScoreText(const char* name, const char* templ)
{
    OBSDataAutoRelease settings = obs_data_create();
    if (templ)
        obs_data_set_string(settings, "template", templ);
    return obs_source_create("vantorelle_text", name, settings, nullptr);
}

obs_source_t* TestObsModule::innerOf(const QList<obs_source_t*>& before)
{
    for (obs_source_t* source : ObsHarness::sourcesOfType("text_ft2_source_v2")) {
        if (!before.contains(source))
            return source;
    }
    return nullptr;
}

void TestObsModule::exportsAndLoadLine()
{
    void* handle = dlopen(obs_get_module_binary_path(m_obs.plugin()), RTLD_NOW | RTLD_NOLOAD);
    QVERIFY(handle);
    for (const char* name : {"obs_module_load", "obs_module_unload", "obs_module_set_pointer",
                             "obs_module_ver", "obs_module_set_locale", "obs_module_free_locale",
                             "obs_module_get_string", "obs_module_name", "obs_module_description"})
        QVERIFY2(dlsym(handle, name), name);
    auto ver = reinterpret_cast<uint32_t (*)()>(dlsym(handle, "obs_module_ver"));
    QCOMPARE(ver(), uint32_t(LIBOBS_API_VER));
    dlclose(handle);

    QCOMPARE(QString::fromUtf8(obs_get_module_name(m_obs.plugin())), QStringLiteral("Vantorelle"));
    QCOMPARE(
        QString::fromUtf8(obs_get_module_description(m_obs.plugin())),
        QStringLiteral("Live Vantorelle scoreboard data, graphics and device setup inside OBS."));
    QVERIFY(m_obs.logContains("[vantorelle] loading plugin 1.0.1"));
    // The staged plug-in has no Bluetooth helper beside it.
    QVERIFY(m_obs.logContains("[vantorelle] no Bluetooth helper (vantorelle-ble-helper); "
                              "Bluetooth is not offered"));
}

void TestObsModule::leftoversOfAnUpdateAreRemoved()
{
    for (const QString& file : std::as_const(m_leftovers))
        QVERIFY2(!QFile::exists(file), qPrintable(file));
    QVERIFY(QFile::exists(ObsHarness::pluginRoot() + "/bin/64bit/vantorelle-obs.so"));
}

void TestObsModule::textSourceRegistered()
{
    QCOMPARE(obs_get_source_output_flags("vantorelle_text"),
             uint32_t(OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW));
    QCOMPARE(obs_source_get_icon_type("vantorelle_text"), OBS_ICON_TYPE_TEXT);
    // The name comes from the module's locale file.
    QCOMPARE(QString::fromUtf8(obs_source_get_display_name("vantorelle_text")),
             QStringLiteral("Vantorelle Score Text"));
    OBSDataAutoRelease defaults = obs_get_source_defaults("vantorelle_text");
    QCOMPARE(QString::fromUtf8(obs_data_get_string(defaults, "template")),
             QStringLiteral("{home_score} - {away_score}"));
}

void TestObsModule::propertiesReplaceTextWithTemplate()
{
    if (!m_withText)
        QSKIP("needs the FreeType text source");
    const QList<obs_source_t*> before = ObsHarness::sourcesOfType("text_ft2_source_v2");
    m_score = createScoreText("score");
    QVERIFY(m_score);
    m_inner = innerOf(before);
    QVERIFY(m_inner);

    obs_properties_t* props = obs_source_properties(m_score);
    QVERIFY(props);
    for (const char* removed : {"text", "from_file", "text_file", "log_mode", "log_lines"})
        QVERIFY2(!obs_properties_get(props, removed), removed);
    // The wrapped source's own look stays editable.
    QVERIFY(obs_properties_get(props, "font"));
    obs_property_t* templ = obs_properties_get(props, "template");
    QVERIFY(templ);
    QCOMPARE(obs_property_text_type(templ), OBS_TEXT_MULTILINE);
    obs_property_t* hint = obs_properties_get(props, "hint");
    QVERIFY(hint);
    QCOMPARE(obs_property_text_type(hint), OBS_TEXT_INFO);
    const QString hintText = QString::fromUtf8(obs_property_description(hint));
    QVERIFY2(hintText.contains("home_score, away_score, clock, period"), qPrintable(hintText));
    QCOMPARE(QString::fromUtf8(obs_property_long_description(templ)), hintText);
    obs_properties_destroy(props);

    // Without an instance (OBS asks the type for its properties) the template is still offered.
    obs_properties_t* typeProps = obs_get_source_properties("vantorelle_text");
    QVERIFY(obs_properties_get(typeProps, "template"));
    obs_properties_destroy(typeProps);
}

void TestObsModule::rendersTemplateAfterEnvelope()
{
    if (!m_withText)
        QSKIP("needs the FreeType text source");
    QCOMPARE(innerText(m_inner), QStringLiteral(" - "));
    QTRY_VERIFY(obs_source_get_width(m_score) > 0);
    const uint32_t emptyWidth = obs_source_get_width(m_score);

    QVERIFY(applyEnvelope(
        R"({"type":"state","sport":"hockey","fields":{"home_score":3,"away_score":12}})"));
    QTRY_COMPARE(innerText(m_inner), QStringLiteral("3 - 12"));
    // The FreeType source applies the new text on its next video tick.
    QTRY_VERIFY(obs_source_get_width(m_score) != emptyWidth);

    // The properties now list the fields that arrived.
    obs_properties_t* props = obs_source_properties(m_score);
    const QString hint =
        QString::fromUtf8(obs_property_description(obs_properties_get(props, "hint")));
    QVERIFY2(hint.contains("away_score, home_score"), qPrintable(hint));
    obs_properties_destroy(props);

    // Editing the template takes effect at once; {sport} is the model's sport.
    OBSDataAutoRelease settings = obs_data_create();
    obs_data_set_string(settings, "template", "{sport}: {home_score}:{away_score} {missing}!");
    obs_source_update(m_score, settings);
    QTRY_COMPARE(innerText(m_inner), QStringLiteral("hockey: 3:12 !"));
    QVERIFY(!applyEnvelope(R"({"type":"data","fields":{"home_score":9}})"));
    QCOMPARE(innerText(m_inner), QStringLiteral("hockey: 3:12 !"));
}

void TestObsModule::unchangedTextLeavesInnerAlone()
{
    if (!m_withText)
        QSKIP("needs the FreeType text source");
    std::atomic<int> updates{0};
    signal_handler_t* handler = obs_source_get_signal_handler(m_inner);
    signal_handler_connect(handler, "update", countUpdate, &updates);

    // A field the template does not show changes: every instance re-renders, none updates.
    QVERIFY(applyEnvelope(R"({"fields":{"clock":"12:00"}})"));
    QVERIFY(applyEnvelope(R"({"fields":{"clock":"11:59"}})"));
    QTest::qWait(50);
    QCOMPARE(updates.load(), 0);

    QVERIFY(applyEnvelope(R"({"fields":{"home_score":4}})"));
    QTRY_COMPARE(updates.load(), 1);
    QCOMPARE(innerText(m_inner), QStringLiteral("hockey: 4:12 !"));
    signal_handler_disconnect(handler, "update", countUpdate, &updates);
}

void TestObsModule::sharingServerAnswersOperations()
{
    LineClient client;
    QVERIFY(client.connectTo("127.0.0.1", m_serverPort));
    const QJsonObject snapshot = client.readObject();
    QVERIFY(snapshot.contains("fields"));
    QCOMPARE(snapshot.value("sport").toString(), m_withText ? QStringLiteral("hockey") : QString());

    client.send("status\n");
    const QJsonObject status = client.readObject();
    QCOMPARE(status.value("op").toString(), QStringLiteral("status"));
    QCOMPARE(status.value("ok").toBool(), true);
    QCOMPARE(status.value("signed_in").toBool(), false);
    QCOMPARE(status.value("sport").toString(), snapshot.value("sport").toString());

    client.send("{\"op\":\"devices\"}\n");
    const QJsonObject devices = client.readObject();
    QCOMPARE(devices.value("devices").toArray().size(), 0);

    client.send("{\"op\":\"use\",\"device\":\"dev-1\"}\n");
    const QJsonObject use = client.readObject();
    QCOMPARE(use.value("ok").toBool(), false);
    QCOMPARE(use.value("error").toString(), QStringLiteral("unknown_device"));

    client.send("Status\n");
    QCOMPARE(client.readObject().value("error").toString(), QStringLiteral("unknown_op"));
}

void TestObsModule::noTextSourceLogsError()
{
    if (m_withText)
        QSKIP("runs in the host without a text source (obs_module_without_text)");
    OBSSourceAutoRelease source = createScoreText("score without text");
    // OBS keeps the source object but without instance data: it draws nothing.
    QVERIFY(!source || !obs_obj_get_data(source));
    QVERIFY(m_obs.logContains("[vantorelle] no OBS text source is available on this system"));
}

void TestObsModule::takenPortLogsWarning()
{
    if (!m_portTaken)
        QSKIP("runs in the host whose sharing-server port is taken (obs_module_port_taken)");
    QVERIFY(m_obs.logContains(
        QStringLiteral("[vantorelle] Could not listen on port %1: ").arg(m_serverPort)));
}

void TestObsModule::unloadClosesServerBeforeItsLine()
{
    if (m_portTaken)
        QSKIP("the plug-in's server never listened");
    LineClient client;
    QVERIFY(client.connectTo("127.0.0.1", m_serverPort));
    QVERIFY(!client.readLine().isEmpty());

    std::atomic<int> listeningAtUnloadLine{-1};
    m_obs.setLogObserver([&](const QString& line) {
        if (line.contains("[vantorelle] plugin unloaded"))
            listeningAtUnloadLine = portAccepts(m_serverPort) ? 1 : 0;
    });
    m_score = nullptr;
    m_obs.shutdown();
    m_obs.setLogObserver({});

    QVERIFY(m_obs.logContains("[vantorelle] plugin unloaded"));
    QCOMPARE(listeningAtUnloadLine.load(), 0);
    QVERIFY(client.waitForClose());
}

QTEST_MAIN(TestObsModule)
#include "tst_obs_module.moc"
