// The built plug-in in real libobs without a front end, as OBS loads it, beside Debian's FreeType
// text and a stand-in for the browser source Debian lacks, signed in to the simulated portal. The
// ctest entry obs_module_degraded runs degradedHost in a host without either source, signed out,
// whose sharing-server port is taken.

#include "common/live_data_support.h"
#include "common/obs_harness.h"
#include "common/test_support.h"
#include "portal_client.h"
#include "sim/portal_server.h"

#include <obs-module.h>
#include <obs-nix-platform.h>
#include <obs.hpp>

#include <QDir>
#include <QJsonDocument>
#include <QMutex>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <X11/Xlib.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPluginRoot = QDir::cleanPath(VANTORELLE_MODULE_DATA "/..");

using Properties = std::unique_ptr<obs_properties_t, decltype(&obs_properties_destroy)>;

QMutex s_logMutex;
QStringList s_log;
std::function<void(const QString&)> s_logObserver; // sees each line on the thread writing it

void recordLog(int, const char* format, va_list args, void*)
{
    char buffer[4096];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    QMutexLocker lock(&s_logMutex);
    s_log << QString::fromUtf8(buffer);
    if (s_logObserver)
        s_logObserver(s_log.last());
}

bool logContains(const QString& text)
{
    QMutexLocker lock(&s_logMutex);
    return !s_log.filter(text).isEmpty();
}

// Creates a source of type `id`; `inner` is the private source of type `innerType` it made.
obs_source_t* createWrapped(const char* id, const QJsonObject& settings, const char* innerType,
                            obs_source_t** inner)
{
    // Sources of earlier tests are destroyed later on OBS's own threads; one of them could hand
    // its address to the new inner source, so start only once they are gone.
    const bool gone = QTest::qWaitFor([&] { return sourcesOfType(innerType).isEmpty(); });
    OBSDataAutoRelease data =
        obs_data_create_from_json(QJsonDocument(settings).toJson().constData());
    obs_source_t* source = obs_source_create(id, "wrapped", data, nullptr);
    const QList<obs_source_t*> made = sourcesOfType(innerType);
    *inner = gone && made.size() == 1 ? made.first() : nullptr;
    return source;
}

QJsonObject settingsOf(obs_source_t* source)
{
    OBSDataAutoRelease settings = obs_source_get_settings(source);
    return jsonObject(obs_data_get_json(settings));
}

uint32_t standInSize(void* source, const char* side)
{
    return uint32_t(settingsOf(static_cast<obs_source_t*>(source))[side].toInt());
}

// The browser stand-in takes its size from its settings, as the real one does.
void registerBrowserStandIn()
{
    obs_source_info info = {};
    info.id = "browser_source";
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = OBS_SOURCE_VIDEO;
    info.get_name = [](void*) { return "Browser stand-in"; };
    info.create = [](obs_data_t*, obs_source_t* source) -> void* { return source; };
    info.destroy = [](void*) {};
    info.get_width = [](void* source) { return standInSize(source, "width"); };
    info.get_height = [](void* source) { return standInSize(source, "height"); };
    info.video_render = [](void*, gs_effect_t*) {};
    obs_register_source(&info);
}

// Calls one of the plug-in's procedures with text arguments: "accepted" when it says so, else
// the snapshot it gives.
QByteArray callProcedure(const char* name,
                         std::initializer_list<std::pair<const char*, const char*>> arguments = {})
{
    calldata_t data;
    calldata_init(&data);
    for (const auto& [key, value] : arguments)
        calldata_set_string(&data, key, value);
    proc_handler_call(obs_get_proc_handler(), name, &data);
    const QByteArray out =
        calldata_bool(&data, "accepted") ? "accepted" : calldata_string(&data, "snapshot");
    calldata_free(&data);
    return out;
}

bool applyEnvelope(const char* json)
{
    return callProcedure("vantorelle_apply_envelope", {{"envelope", json}}) == "accepted";
}

bool holdField(const char* field, const char* value)
{
    return callProcedure("vantorelle_hold_field", {{"field", field}, {"value", value}}) ==
           "accepted";
}

Properties propertiesOf(const char* type)
{
    return {obs_get_source_properties(type), obs_properties_destroy};
}

QString description(obs_properties_t* props, const char* name)
{
    return QString::fromUtf8(obs_property_description(obs_properties_get(props, name)));
}

// The graphics output list: label=value, one item after the other.
QString outputItems(obs_properties_t* props)
{
    obs_property_t* list = obs_properties_get(props, "output_id");
    QStringList items;
    for (size_t i = 0; i < obs_property_list_item_count(list); ++i)
        items << QString("%1=%2").arg(obs_property_list_item_name(list, i),
                                      obs_property_list_item_string(list, i));
    return items.join(" | ");
}

} // namespace

class TestObsModule : public QObject
{
    Q_OBJECT

    QTemporaryDir m_config;
    sim::PortalServer m_portal;
    obs_module_t* m_plugin = nullptr;
    quint16 m_serverPort = 0;
    QTcpServer m_squatter;
    const bool m_degraded = !qEnvironmentVariableIsEmpty("VANTORELLE_HARNESS_DEGRADED");

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_portal.start());
        m_portal.addAccount(kEmail, "hunter22");
        m_portal.addOutput(
            kEmail, jsonObject(jsonText("{'id':'out-1','name':'Scoreboard',"
                                        "'share_token':'tok-a','width':1280,'height':720}")));
        m_portal.addOutput(
            kEmail,
            jsonObject(jsonText("{'id':'out-2','name':'Lower third','share_token':'tok-b'}")));
        qputenv("VANTORELLE_PORTAL_URL", m_portal.baseUrl().toUtf8());
        m_serverPort = freePort();
        if (m_degraded)
            QVERIFY(m_squatter.listen(QHostAddress::LocalHost, m_serverPort));
        const QString moduleConfig = m_config.filePath("vantorelle-obs");
        QVERIFY(QDir().mkpath(moduleConfig));
        writeFile(moduleConfig + "/settings.json",
                  jsonText("{'server_enabled':true,'auto_check_updates':false,'server_port':") +
                      QByteArray::number(m_serverPort) + "}");
        if (!m_degraded) {
            // A sign-in saved by an earlier OBS session, which the plug-in restores at load.
            PortalClient earlier(m_portal.baseUrl());
            earlier.jar()->setPath(moduleConfig + "/session.json");
            bool signedIn = false;
            earlier.signIn(kEmail, "hunter22", [&](const PortalResult& r) { signedIn = r.ok; });
            QTRY_VERIFY(signedIn);
        }
        // Files an earlier self-update moved aside; loading the plug-in deletes them.
        for (const char* file : {"/bin/64bit/vantorelle-obs.so.old", "/data/locale/en-US.ini.old"})
            writeFile(kPluginRoot + file, "left by an update");
        base_set_log_handler(recordLog, nullptr);
        Display* display = XOpenDisplay(nullptr);
        QVERIFY2(display, "no X display");
        obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
        obs_set_nix_platform_display(display);
        QVERIFY(obs_startup("en-US", m_config.path().toUtf8().constData(), nullptr));
        // clang-format off
        obs_video_info video = {"libobs-opengl", 30, 1, 640, 360, 640, 360, VIDEO_FORMAT_NV12, 0,
                                true, VIDEO_CS_709, VIDEO_RANGE_PARTIAL, OBS_SCALE_BICUBIC};
        // clang-format on
        QCOMPARE(obs_reset_video(&video), OBS_VIDEO_SUCCESS);
        if (!m_degraded) {
            obs_module_t* freetype = nullptr;
            QVERIFY(openModule(OBS_PLUGIN_DIR "/text-freetype2.so",
                               OBS_PLUGIN_DATA_DIR "/text-freetype2", &freetype));
            registerBrowserStandIn();
        }
        QVERIFY(openModule(VANTORELLE_MODULE_FILE, VANTORELLE_MODULE_DATA, &m_plugin));
    }

    // Unloading closes the sharing server before the plug-in writes its last line.
    void cleanupTestCase()
    {
        LineClient client;
        QVERIFY(m_degraded || client.connectTo("127.0.0.1", m_serverPort));
        int listeningAtUnloadLine = -1; // the log line comes on this thread
        {
            QMutexLocker lock(&s_logMutex); // OBS's threads log while this changes
            s_logObserver = [&](const QString& line) {
                if (line.contains("[vantorelle] plugin unloaded"))
                    listeningAtUnloadLine = canConnect("127.0.0.1", m_serverPort) ? 1 : 0;
            };
        }
        // Every library stays mapped after OBS unloads it: what a library keeps in its globals
        // until exit is then not reported as leaked, and a real leak names the code behind it.
        QFile maps("/proc/self/maps");
        QVERIFY(maps.open(QIODevice::ReadOnly));
        for (const QByteArray& line : maps.readAll().split('\n')) {
            if (line.contains(".so"))
                dlopen(line.mid(line.indexOf('/')).constData(),
                       RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
        }
        obs_shutdown();
        {
            QMutexLocker lock(&s_logMutex);
            s_logObserver = nullptr;
        }
        QCOMPARE(listeningAtUnloadLine, m_degraded ? 1 : 0); // the squatter still listens
        QVERIFY(m_degraded || client.waitForClose());
    }

    // The other exports show in their use: the locale in the sources' names, unload in its line.
    void loadsAsAModule()
    {
        void* handle = dlopen(obs_get_module_binary_path(m_plugin), RTLD_NOW | RTLD_NOLOAD);
        auto ver = reinterpret_cast<uint32_t (*)()>(dlsym(handle, "obs_module_ver"));
        QVERIFY(ver);
        QCOMPARE(ver(), uint32_t(LIBOBS_API_VER));
        dlclose(handle);
        QCOMPARE(QString(obs_get_module_name(m_plugin)), "Vantorelle");
        QCOMPARE(QString(obs_get_module_description(m_plugin)),
                 "Live Vantorelle scoreboard data, graphics and device setup inside OBS.");
        QVERIFY(logContains("[vantorelle] loading plugin 1.0.1"));
        // The staged plug-in has no Bluetooth helper beside it.
        QVERIFY(logContains("[vantorelle] no Bluetooth helper (vantorelle-ble-helper); Bluetooth "
                            "is not offered"));
        // Left-overs of an update are tidied once OBS's event loop runs.
        QTRY_VERIFY(!QFile::exists(kPluginRoot + "/bin/64bit/vantorelle-obs.so.old"));
        QTRY_VERIFY(!QFile::exists(kPluginRoot + "/data/locale/en-US.ini.old"));
        QVERIFY(QFile::exists(kPluginRoot + "/bin/64bit/vantorelle-obs.so"));
    }

    void registersSources()
    {
        for (const char* id : {"vantorelle_text", "vantorelle_graphics"})
            QCOMPARE(obs_get_source_output_flags(id),
                     uint32_t(OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW));
        QCOMPARE(obs_source_get_icon_type("vantorelle_text"), OBS_ICON_TYPE_TEXT);
        QCOMPARE(obs_source_get_icon_type("vantorelle_graphics"), OBS_ICON_TYPE_BROWSER);
        // The names come from the module's locale file.
        QCOMPARE(QString(obs_source_get_display_name("vantorelle_text")), "Vantorelle Score Text");
        QCOMPARE(QString(obs_source_get_display_name("vantorelle_graphics")),
                 "Vantorelle Graphics");
        OBSDataAutoRelease defaults = obs_get_source_defaults("vantorelle_text");
        QCOMPARE(QString(obs_data_get_string(defaults, "template")), "{home_score} - {away_score}");
        // Without an instance (OBS asks the type) the template is still offered.
        QVERIFY(obs_properties_get(propertiesOf("vantorelle_text").get(), "template"));
    }

    void textSource()
    {
        if (m_degraded)
            QSKIP("needs the FreeType text source");
        QVERIFY(applyEnvelope(R"({"fields":{"r_home":"","r_away":""}})"));
        obs_source_t* inner = nullptr;
        OBSSourceAutoRelease score = createWrapped(
            "vantorelle_text", {{"template", "{r_home} - {r_away}"}}, "text_ft2_source_v2", &inner);
        QVERIFY(inner);
        QCOMPARE(settingsOf(inner)["text"].toString(), " - ");
        QTRY_VERIFY(obs_source_get_width(score) > 0);
        const uint32_t emptyWidth = obs_source_get_width(score);
        QVERIFY(applyEnvelope(
            R"({"type":"state","sport":"hockey","fields":{"r_home":3,"r_away":12}})"));
        QTRY_COMPARE(settingsOf(inner)["text"].toString(), "3 - 12");
        // The FreeType source applies the new text on its next video tick.
        QTRY_VERIFY(obs_source_get_width(score) != emptyWidth);
        // Editing the template takes effect at once; {sport} is the model's sport.
        OBSDataAutoRelease settings = obs_data_create();
        obs_data_set_string(settings, "template", "{sport}: {r_home}:{r_away} {missing}!");
        obs_source_update(score, settings);
        QTRY_COMPARE(settingsOf(inner)["text"].toString(), "hockey: 3:12 !");
        QVERIFY(!applyEnvelope(R"({"type":"data","fields":{"r_home":9}})"));
        QVERIFY(!applyEnvelope("not json"));
        QCOMPARE(settingsOf(inner)["text"].toString(), "hockey: 3:12 !");
        // A field the template does not show changes: the inner source is not updated, which would
        // copy the score text's template over this mark.
        OBSDataAutoRelease innerSettings = obs_source_get_settings(inner);
        obs_data_set_string(innerSettings, "template", "mark");
        QVERIFY(applyEnvelope(R"({"fields":{"r_clock":"12:00"}})"));
        QCOMPARE(settingsOf(inner)["template"].toString(), "mark");
        QVERIFY(applyEnvelope(R"({"fields":{"r_home":4}})"));
        QCOMPARE(settingsOf(inner)["template"].toString(), "{sport}: {r_home}:{r_away} {missing}!");
        QCOMPARE(settingsOf(inner)["text"].toString(), "hockey: 4:12 !");
        // The template replaces the wrapped source's text and file properties, not its look.
        Properties props(obs_source_properties(score), obs_properties_destroy);
        for (const char* removed : {"text", "from_file", "text_file", "log_mode", "log_lines"})
            QVERIFY2(!obs_properties_get(props.get(), removed), removed);
        QVERIFY(obs_properties_get(props.get(), "font"));
        obs_property_t* templ = obs_properties_get(props.get(), "template");
        obs_property_t* hint = obs_properties_get(props.get(), "hint");
        QVERIFY(templ && hint);
        QCOMPARE(obs_property_text_type(templ), OBS_TEXT_MULTILINE);
        QCOMPARE(obs_property_text_type(hint), OBS_TEXT_INFO);
        const QString hintText = obs_property_description(hint); // lists the fields that came
        QVERIFY2(hintText.contains("r_away, r_clock, r_home"), qPrintable(hintText));
        QCOMPARE(QString(obs_property_long_description(templ)), hintText);
    }

    // A held field is in the text source's text when the hold returns, so the next video frame
    // shows it; the device's changes to it wait underneath until it is released.
    void heldFieldOnAir()
    {
        if (m_degraded)
            QSKIP("needs the FreeType text source");
        QVERIFY(applyEnvelope(R"({"fields":{"h_home":1,"h_away":2}})"));
        obs_source_t* inner = nullptr;
        OBSSourceAutoRelease score = createWrapped(
            "vantorelle_text", {{"template", "{h_home}-{h_away}"}}, "text_ft2_source_v2", &inner);
        QVERIFY(inner);
        QTRY_VERIFY(obs_source_get_width(score) > 0);
        const uint32_t width = obs_source_get_width(score);
        QVERIFY(holdField("h_home", "10"));
        QCOMPARE(settingsOf(inner)["text"].toString(), "10-2");
        QTRY_VERIFY(obs_source_get_width(score) > width); // drawn on the next video tick
        QVERIFY(applyEnvelope(R"({"fields":{"h_home":3,"h_away":4}})"));
        QCOMPARE(settingsOf(inner)["text"].toString(), "10-4");
        QVERIFY(!holdField("h home", "1"));
        callProcedure("vantorelle_release_fields", {{"field", "h_home"}});
        QCOMPARE(settingsOf(inner)["text"].toString(), "3-4");
        QVERIFY(holdField("h_away", "0"));
        callProcedure("vantorelle_release_fields", {{"field", ""}});
        QCOMPARE(settingsOf(inner)["text"].toString(), "3-4");
    }

    // Text sources made, edited and released on other threads while scores arrive on this one:
    // none is rendered after release, and a source made afterwards shows the last scores.
    void textSourcesAcrossThreads()
    {
        if (m_degraded)
            QSKIP("needs the FreeType text source");
        std::vector<std::unique_ptr<QThread>> workers;
        for (int w = 0; w < 3; ++w) {
            workers.emplace_back(QThread::create([] {
                for (int i = 0; i < 30; ++i) {
                    OBSDataAutoRelease data = obs_data_create();
                    obs_data_set_string(data, "template", "{t_home}");
                    OBSSourceAutoRelease text =
                        obs_source_create_private("vantorelle_text", "worker", data);
                    obs_data_set_string(data, "template", "{t_home}:{t_away}");
                    obs_source_update(text, data);
                }
            }));
            workers.back()->start();
        }
        int score = 0;
        do {
            ++score;
            QVERIFY(applyEnvelope(QByteArray(R"({"fields":{"t_home":)" + QByteArray::number(score) +
                                             R"(,"t_away":1}})")
                                      .constData()));
        } while (!std::all_of(workers.begin(), workers.end(),
                              [](const auto& w) { return w->isFinished(); }));
        for (auto& w : workers)
            QVERIFY(w->wait());
        obs_source_t* inner = nullptr;
        OBSSourceAutoRelease last = createWrapped(
            "vantorelle_text", {{"template", "{t_home}:{t_away}"}}, "text_ft2_source_v2", &inner);
        QVERIFY(inner);
        QCOMPARE(settingsOf(inner)["text"].toString(), QString::number(score) + ":1");
    }

    // The plug-in's sharing server greets and follows the live data as the procedure reports it.
    void sharingServerAndSnapshotProcedureAgree()
    {
        if (m_degraded)
            QSKIP("the sharing-server port is taken");
        QVERIFY(applyEnvelope(R"({"fields":{"p_end":""}})"));
        LineClient client;
        QVERIFY(client.connectTo("127.0.0.1", m_serverPort));
        QCOMPARE(client.readLine(), callProcedure("vantorelle_get_snapshot"));
        QVERIFY(applyEnvelope(R"({"sport":"curling","fields":{"p_end":7}})"));
        const QByteArray line = client.readLine();
        QCOMPARE(line, callProcedure("vantorelle_get_snapshot"));
        QVERIFY2(line.startsWith(R"({"sport":"curling","fields":{)") &&
                     line.contains(R"("p_end":"7")"),
                 line.constData());
    }

    void graphicsInnerGetsCorrectedSettings_data()
    {
        QTest::addColumn<QSize>("asked");
        QTest::addColumn<QSize>("applied");
        QTest::newRow("zero") << QSize(0, 0) << QSize(1920, 1080);
        QTest::newRow("below 16") << QSize(15, 15) << QSize(1920, 1080);
        QTest::newRow("16") << QSize(16, 16) << QSize(16, 16);
        QTest::newRow("chosen") << QSize(1280, 720) << QSize(1280, 720);
    }
    void graphicsInnerGetsCorrectedSettings()
    {
        if (m_degraded)
            QSKIP("needs the browser stand-in");
        QFETCH(QSize, asked);
        QFETCH(QSize, applied);
        obs_source_t* inner = nullptr;
        OBSSourceAutoRelease source = createWrapped(
            "vantorelle_graphics",
            {{"url", "http://x/y"}, {"width", asked.width()}, {"height", asked.height()}},
            "browser_source", &inner);
        QVERIFY(inner);
        QCOMPARE(settingsOf(inner),
                 jsonObject(jsonText("{'url':'http://x/y','width':%1,'height':%2,'fps':30,"
                                     "'fps_custom':true,'reroute_audio':false,'shutdown':false,"
                                     "'restart_when_active':false,'css':'body { background-color: "
                                     "rgba(0, 0, 0, 0); margin: 0px auto; overflow: hidden; }'}")
                                .replace("%1", QByteArray::number(applied.width()))
                                .replace("%2", QByteArray::number(applied.height()))));
        QCOMPARE(QSize(obs_source_get_width(source), obs_source_get_height(source)), applied);
        // The source's own settings keep what the user stored.
        QCOMPARE(settingsOf(source)["width"].toInt(), asked.width());
    }

    // The restored sign-in fetches the outputs shortly after load; Refresh fetches them again. A
    // stored choice the portal does not list stays on top.
    void graphicsOutputsFollowThePortal()
    {
        if (m_degraded)
            QSKIP("needs the browser stand-in");
        QTRY_COMPARE(description(propertiesOf("vantorelle_graphics").get(), "status"),
                     "2 graphics output(s) in your account.");
        QCOMPARE(outputItems(propertiesOf("vantorelle_graphics").get()),
                 "Scoreboard=out-1 | Lower third=out-2");
        obs_source_t* inner = nullptr;
        OBSSourceAutoRelease source =
            createWrapped("vantorelle_graphics", {{"output_id", "gone"}, {"output_name", "Old"}},
                          "browser_source", &inner);
        Properties props(obs_source_properties(source), obs_properties_destroy);
        m_portal.addOutput(kEmail, {{"id", "out-3"}, {"name", "Replay"}, {"share_token", "tok-c"}});
        QVERIFY(obs_property_button_clicked(obs_properties_get(props.get(), "refresh"), source));
        QCOMPARE(outputItems(props.get()),
                 "Old=gone | Scoreboard=out-1 | Lower third=out-2 | Replay=out-3");
        QCOMPARE(description(props.get(), "status"), "3 graphics output(s) in your account.");
    }

    // `settings` are what choosing the output leaves ("BASE" the portal's address); more than the
    // choice itself means a redraw.
    void graphicsChoosingOutput_data()
    {
        QTest::addColumn<QByteArray>("settings");
        QTest::newRow("sized") << jsonText("{'output_id':'out-1','url':'BASE/graphics/o/tok-a',"
                                           "'output_name':'Scoreboard','width':1280,'height':720}");
        QTest::newRow("default size")
            << jsonText("{'output_id':'out-2','url':'BASE/graphics/o/tok-b',"
                        "'output_name':'Lower third','width':1920,'height':1080}");
        QTest::newRow("not listed") << jsonText("{'output_id':'gone'}");
        QTest::newRow("empty") << jsonText("{'output_id':''}");
    }
    void graphicsChoosingOutput()
    {
        if (m_degraded)
            QSKIP("needs the signed-in plug-in");
        QFETCH(QByteArray, settings);
        const QJsonObject expected =
            jsonObject(settings.replace("BASE", m_portal.baseUrl().toUtf8()));
        QTRY_VERIFY(outputItems(propertiesOf("vantorelle_graphics").get()).contains("out-2"));
        Properties props = propertiesOf("vantorelle_graphics");
        OBSDataAutoRelease data = obs_data_create();
        obs_data_set_string(data, "output_id",
                            expected["output_id"].toString().toUtf8().constData());
        QCOMPARE(obs_property_modified(obs_properties_get(props.get(), "output_id"), data),
                 expected.size() > 1);
        QCOMPARE(jsonObject(obs_data_get_json(data)), expected);
    }

    void degradedHost()
    {
        if (!m_degraded)
            QSKIP("runs in the degraded host (obs_module_degraded)");
        // OBS keeps such sources but without instance data: they draw nothing.
        for (const char* id : {"vantorelle_text", "vantorelle_graphics"}) {
            OBSSourceAutoRelease source = obs_source_create(id, id, nullptr, nullptr);
            QVERIFY(!source || !obs_obj_get_data(source));
        }
        QVERIFY(logContains("[vantorelle] no OBS text source is available on this system"));
        QVERIFY(logContains(
            "[vantorelle] this OBS has no browser source, so graphics cannot be shown"));
        // The sharing server starts once OBS's event loop runs.
        QTRY_VERIFY(
            logContains(QString("[vantorelle] Could not listen on port %1: ").arg(m_serverPort)));
        // No field has arrived yet: the hint names the usual ones.
        QCOMPARE(description(propertiesOf("vantorelle_text").get(), "hint"),
                 "Write the text with {field} placeholders; each is replaced by the live value of "
                 "that field. Fields: home_score, away_score, clock, period");
        // Regression: Refresh in the properties of the type itself, which have no instance.
        Properties props = propertiesOf("vantorelle_graphics");
        QVERIFY(obs_property_button_clicked(obs_properties_get(props.get(), "refresh"), nullptr));
        QCOMPARE(outputItems(props.get()), "(no graphics outputs)=");
        QCOMPARE(description(props.get(), "status"),
                 "Sign in from the Vantorelle dock to see your graphics.");
    }
};

QTEST_MAIN(TestObsModule)
#include "tst_obs_module.moc"
