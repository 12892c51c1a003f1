// The graphics source in real libobs, around a recording stand-in for OBS's browser source.

#include "common/test_support.h"
#include "obs_harness.h"
#include "portal/portal_client.h"
#include "sim/portal_server.h"

#include <obs-module.h>
#include <obs.hpp>

#include <QJsonDocument>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>

using namespace vantorelle;
using namespace vantorelle::test;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");

// Debian's OBS has no browser source: this one keeps the settings it is given and takes its size
// from them, as the real one does.
struct StandIn
{
    QMutex mutex;
    QJsonObject received;
    std::atomic<uint32_t> width{0};
    std::atomic<uint32_t> height{0};
};

void standInUpdate(void* data, obs_data_t* settings)
{
    auto* self = static_cast<StandIn*>(data);
    QMutexLocker lock(&self->mutex);
    self->received = QJsonDocument::fromJson(obs_data_get_json(settings)).object();
    self->width = uint32_t(obs_data_get_int(settings, "width"));
    self->height = uint32_t(obs_data_get_int(settings, "height"));
}

void registerStandIn()
{
    obs_source_info info = {};
    info.id = "browser_source";
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = OBS_SOURCE_VIDEO;
    info.get_name = [](void*) { return "Browser stand-in"; };
    info.create = [](obs_data_t* settings, obs_source_t*) -> void* {
        auto* self = new StandIn;
        standInUpdate(self, settings);
        return self;
    };
    info.destroy = [](void* data) { delete static_cast<StandIn*>(data); };
    info.update = standInUpdate;
    info.get_width = [](void* data) { return static_cast<StandIn*>(data)->width.load(); };
    info.get_height = [](void* data) { return static_cast<StandIn*>(data)->height.load(); };
    info.video_render = [](void*, gs_effect_t*) {};
    obs_register_source(&info);
}

QJsonObject receivedBy(obs_source_t* inner)
{
    auto* self = static_cast<StandIn*>(obs_obj_get_data(inner));
    QMutexLocker lock(&self->mutex);
    return self->received;
}

using Properties = std::unique_ptr<obs_properties_t, decltype(&obs_properties_destroy)>;
using Items = QList<QStringList>;

Properties typeProperties()
{
    return {obs_get_source_properties("vantorelle_graphics"), obs_properties_destroy};
}

// The output list as {label, value} pairs.
Items listItems(obs_properties_t* props)
{
    obs_property_t* list = obs_properties_get(props, "output_id");
    Items items;
    for (size_t i = 0; i < obs_property_list_item_count(list); ++i)
        items << QStringList{QString::fromUtf8(obs_property_list_item_name(list, i)),
                             QString::fromUtf8(obs_property_list_item_string(list, i))};
    return items;
}

QString statusText(obs_properties_t* props)
{
    return QString::fromUtf8(obs_property_description(obs_properties_get(props, "status")));
}

obs_source_t* createGraphics(const QJsonObject& settings)
{
    OBSDataAutoRelease data =
        obs_data_create_from_json(QJsonDocument(settings).toJson().constData());
    return obs_source_create("vantorelle_graphics", "graphics", data, nullptr);
}

} // namespace

class TestObsGraphics : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void innerGetsCorrectedSettings_data();
    void innerGetsCorrectedSettings();
    void signedInListsOutputs();
    void choosingOutput_data();
    void choosingOutput();
    void storedOutputStaysOnTop();
    void refreshFetchesAgain();
    void signedOutOffersNone();
    void noBrowserSourceFailsCreation();

private:
    obs_source_t* innerOf(const QList<obs_source_t*>& before);
    void clickRefresh(obs_properties_t* props, obs_source_t* source);

    ObsHarness m_obs;
    QTemporaryDir m_config;
    sim::PortalServer m_portal;
    bool m_withBrowser = true;
};

void TestObsGraphics::initTestCase()
{
    m_withBrowser = qEnvironmentVariableIsEmpty("VANTORELLE_HARNESS_WITHOUT_BROWSER");
    QVERIFY(m_config.isValid());
    QVERIFY(m_portal.start());
    m_portal.addAccount(kEmail, kPassword);
    m_portal.addOutput(kEmail, {{"id", "out-1"},
                                {"name", "Scoreboard"},
                                {"share_token", "tok-a"},
                                {"width", 1280},
                                {"height", 720}});
    m_portal.addOutput(kEmail,
                       {{"id", "out-2"}, {"name", "Lower third"}, {"share_token", "tok-b"}});

    // A sign-in saved by an earlier OBS session, which the plug-in restores at load.
    const QString moduleConfig = m_config.filePath("vantorelle-obs");
    writeFile(moduleConfig + "/settings.json", R"({"auto_check_updates":false})");
    PortalClient earlier(m_portal.baseUrl());
    earlier.jar()->setPath(moduleConfig + "/session.json");
    bool signedIn = false;
    earlier.signIn(kEmail, kPassword, [&](const PortalResult& r) { signedIn = r.ok; });
    QTRY_VERIFY(signedIn);

    qputenv("VANTORELLE_PORTAL_URL", m_portal.baseUrl().toUtf8());
    QVERIFY2(m_obs.start(m_config.path()), "libobs did not start (is there an X display?)");
    if (m_withBrowser)
        registerStandIn();
    QVERIFY(m_obs.loadPlugin());
}

void TestObsGraphics::cleanupTestCase()
{
    m_obs.shutdown();
}

obs_source_t* TestObsGraphics::innerOf(const QList<obs_source_t*>& before)
{
    for (obs_source_t* source : ObsHarness::sourcesOfType("browser_source")) {
        if (!before.contains(source))
            return source;
    }
    return nullptr;
}

void TestObsGraphics::clickRefresh(obs_properties_t* props, obs_source_t* source)
{
    QVERIFY(obs_property_button_clicked(obs_properties_get(props, "refresh"), source));
}

void TestObsGraphics::innerGetsCorrectedSettings_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("innerWidth");
    QTest::addColumn<int>("innerHeight");
    QTest::newRow("zero") << 0 << 0 << 1920 << 1080;
    QTest::newRow("below 16") << 15 << 15 << 1920 << 1080;
    QTest::newRow("16") << 16 << 16 << 16 << 16;
    QTest::newRow("chosen") << 1280 << 720 << 1280 << 720;
}

void TestObsGraphics::innerGetsCorrectedSettings()
{
    if (!m_withBrowser)
        QSKIP("needs the browser stand-in");
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(int, innerWidth);
    QFETCH(int, innerHeight);
    // Sources of earlier cases are destroyed later on OBS's own threads; one of them could hand
    // its address to the new inner source, so start only once they are gone.
    QTRY_VERIFY(ObsHarness::sourcesOfType("browser_source").isEmpty());
    const QList<obs_source_t*> before = ObsHarness::sourcesOfType("browser_source");
    const QString url = m_portal.baseUrl() + "/graphics/o/tok-a";
    OBSSourceAutoRelease source =
        createGraphics({{"url", url}, {"width", width}, {"height", height}});
    QVERIFY(source);
    obs_source_t* inner = innerOf(before);
    QVERIFY(inner);

    // OBS applies a video source's update on its next video tick.
    QTRY_COMPARE(receivedBy(inner).value("url").toString(), url);
    const QJsonObject received = receivedBy(inner);
    QCOMPARE(received.value("width").toInt(), innerWidth);
    QCOMPARE(received.value("height").toInt(), innerHeight);
    QCOMPARE(received.value("fps").toInt(), 30);
    QCOMPARE(received.value("fps_custom").toBool(), true);
    for (const char* off : {"reroute_audio", "shutdown", "restart_when_active"})
        QCOMPARE(received.value(off), QJsonValue(false));
    QCOMPARE(received.value("css").toString(),
             QStringLiteral("body { background-color: rgba(0, 0, 0, 0); margin: 0px auto; "
                            "overflow: hidden; }"));
    QCOMPARE(obs_source_get_width(source), uint32_t(innerWidth));
    QCOMPARE(obs_source_get_height(source), uint32_t(innerHeight));
    // The source's own settings keep what the user stored.
    OBSDataAutoRelease settings = obs_source_get_settings(source);
    QCOMPARE(int(obs_data_get_int(settings, "width")), width);
}

void TestObsGraphics::signedInListsOutputs()
{
    // The restored sign-in fetches the outputs shortly after load.
    QTRY_COMPARE(statusText(typeProperties().get()),
                 QStringLiteral("2 graphics output(s) in your account."));
    const Items expected{{"Scoreboard", "out-1"}, {"Lower third", "out-2"}};
    QCOMPARE(listItems(typeProperties().get()), expected);
}

void TestObsGraphics::choosingOutput_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<bool>("redraw");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    const QString base = m_portal.baseUrl() + "/graphics/o/";
    QTest::newRow("sized") << "out-1" << true << base + "tok-a"
                           << "Scoreboard" << 1280 << 720;
    QTest::newRow("default size") << "out-2" << true << base + "tok-b"
                                  << "Lower third" << 1920 << 1080;
    QTest::newRow("not listed") << "gone" << false << ""
                                << "" << 0 << 0;
    QTest::newRow("empty") << "" << false << ""
                           << "" << 0 << 0;
}

void TestObsGraphics::choosingOutput()
{
    QFETCH(QString, id);
    QFETCH(bool, redraw);
    QFETCH(QString, url);
    QFETCH(QString, name);
    QFETCH(int, width);
    QFETCH(int, height);
    Properties props = typeProperties();
    OBSDataAutoRelease settings = obs_data_create();
    obs_data_set_string(settings, "output_id", id.toUtf8().constData());
    QCOMPARE(obs_property_modified(obs_properties_get(props.get(), "output_id"), settings), redraw);
    QCOMPARE(QString::fromUtf8(obs_data_get_string(settings, "url")), url);
    QCOMPARE(QString::fromUtf8(obs_data_get_string(settings, "output_name")), name);
    QCOMPARE(int(obs_data_get_int(settings, "width")), width);
    QCOMPARE(int(obs_data_get_int(settings, "height")), height);
}

void TestObsGraphics::storedOutputStaysOnTop()
{
    if (!m_withBrowser)
        QSKIP("needs the browser stand-in");
    OBSSourceAutoRelease source =
        createGraphics({{"output_id", "gone"}, {"output_name", "Old board"}});
    Properties props(obs_source_properties(source), obs_properties_destroy);
    const Items expected{{"Old board", "gone"}, {"Scoreboard", "out-1"}, {"Lower third", "out-2"}};
    QCOMPARE(listItems(props.get()), expected);
}

void TestObsGraphics::refreshFetchesAgain()
{
    if (!m_withBrowser)
        QSKIP("needs the browser stand-in");
    OBSSourceAutoRelease source = createGraphics({});
    Properties props(obs_source_properties(source), obs_properties_destroy);
    m_portal.addOutput(kEmail, {{"id", "out-3"}, {"name", "Replay"}, {"share_token", "tok-c"}});
    clickRefresh(props.get(), source);
    QCOMPARE(listItems(props.get()).size(), 3);
    QCOMPARE(statusText(props.get()), QStringLiteral("3 graphics output(s) in your account."));
}

void TestObsGraphics::signedOutOffersNone()
{
    // The portal forgets the session: the next fetch answers 401 and signs the plug-in out.
    m_portal.endSessions();
    const Items none{{"(no graphics outputs)", ""}};
    Properties props = typeProperties();
    clickRefresh(props.get(), nullptr);
    QCOMPARE(listItems(props.get()), none);
    QCOMPARE(statusText(props.get()),
             QStringLiteral("Sign in from the Vantorelle dock to see your graphics."));
    QCOMPARE(listItems(typeProperties().get()), none);
}

void TestObsGraphics::noBrowserSourceFailsCreation()
{
    if (m_withBrowser)
        QSKIP("runs in the host without a browser source (obs_graphics_without_browser)");
    OBSSourceAutoRelease source = createGraphics({});
    // OBS keeps the source object but without instance data: it draws nothing.
    QVERIFY(!source || !obs_obj_get_data(source));
    QVERIFY(m_obs.logContains(
        "[vantorelle] this OBS has no browser source, so graphics cannot be shown"));
}

QTEST_MAIN(TestObsGraphics)
#include "tst_obs_graphics.moc"
