// vantorelle-obs-host: runs the plug-in in real libobs without OBS's window. It loads the module,
// turns the sharing server on, puts a score text in a scene, plays a demo game into the live
// data and writes a picture of the score text every few seconds.

#include <obs-nix-platform.h>
#include <obs.hpp>

#include <QCommandLineParser>
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTextStream>
#include <QTimer>

#include <X11/Xlib.h>

#include <csignal>

namespace {

QTextStream out(stdout);

bool openModule(const QString& file, const QString& data)
{
    obs_module_t* module = nullptr;
    return obs_open_module(&module, file.toUtf8().constData(), data.toUtf8().constData()) ==
               MODULE_SUCCESS &&
           obs_init_module(module);
}

bool startObs(const QString& configDir)
{
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return false;
    obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
    obs_set_nix_platform_display(display);
    if (!obs_startup("en-US", configDir.toUtf8().constData(), nullptr))
        return false;
    obs_video_info ovi = {};
    ovi.graphics_module = "libobs-opengl";
    ovi.fps_num = 30;
    ovi.fps_den = 1;
    ovi.base_width = ovi.output_width = 1280;
    ovi.base_height = ovi.output_height = 720;
    ovi.output_format = VIDEO_FORMAT_NV12;
    ovi.colorspace = VIDEO_CS_709;
    ovi.range = VIDEO_RANGE_PARTIAL;
    ovi.scale_type = OBS_SCALE_BICUBIC;
    ovi.gpu_conversion = true;
    return obs_reset_video(&ovi) == OBS_VIDEO_SUCCESS;
}

// Draws one source into an image on the graphics thread's context.
QImage renderSource(obs_source_t* source)
{
    const uint32_t w = obs_source_get_width(source);
    const uint32_t h = obs_source_get_height(source);
    if (!w || !h)
        return {};
    QImage image(int(w), int(h), QImage::Format_RGBA8888);
    image.fill(Qt::black);
    obs_enter_graphics();
    gs_texrender_t* render = gs_texrender_create(GS_RGBA, GS_ZS_NONE);
    gs_stagesurf_t* stage = gs_stagesurface_create(w, h, GS_RGBA);
    if (gs_texrender_begin(render, w, h)) {
        vec4 clear;
        vec4_zero(&clear);
        clear.w = 1.0f;
        gs_clear(GS_CLEAR_COLOR, &clear, 0.0f, 0);
        gs_ortho(0.0f, float(w), 0.0f, float(h), -100.0f, 100.0f);
        obs_source_video_render(source);
        gs_texrender_end(render);
        gs_stage_texture(stage, gs_texrender_get_texture(render));
        uint8_t* data = nullptr;
        uint32_t lineSize = 0;
        if (gs_stagesurface_map(stage, &data, &lineSize)) {
            for (uint32_t y = 0; y < h; ++y)
                memcpy(image.scanLine(int(y)), data + y * lineSize, w * 4);
            gs_stagesurface_unmap(stage);
        }
    }
    gs_stagesurface_destroy(stage);
    gs_texrender_destroy(render);
    obs_leave_graphics();
    return image;
}

bool applyEnvelope(const QJsonObject& envelope)
{
    const QByteArray json = QJsonDocument(envelope).toJson(QJsonDocument::Compact);
    calldata_t data;
    calldata_init(&data);
    calldata_set_string(&data, "envelope", json.constData());
    proc_handler_call(obs_get_proc_handler(), "vantorelle_apply_envelope", &data);
    const bool accepted = calldata_bool(&data, "accepted");
    calldata_free(&data);
    return accepted;
}

// A demo hockey game: the clock runs down, goals fall now and then.
class DemoGame
{
public:
    QJsonObject tick()
    {
        if (m_seconds == 0) {
            m_seconds = 20 * 60;
            m_period = m_period % 3 + 1;
        }
        --m_seconds;
        if (QRandomGenerator::global()->bounded(12) == 0)
            ++(QRandomGenerator::global()->bounded(2) ? m_home : m_away);
        const QString clock =
            QStringLiteral("%1:%2").arg(m_seconds / 60).arg(m_seconds % 60, 2, 10, QChar('0'));
        return {{"type", "state"},
                {"sport", "hockey"},
                {"fields", QJsonObject{{"home_score", m_home},
                                       {"away_score", m_away},
                                       {"clock", clock},
                                       {"period", m_period},
                                       {"home_name", "Harbor"},
                                       {"away_name", "Summit"}}}};
    }

private:
    int m_seconds = 20 * 60;
    int m_period = 1;
    int m_home = 0;
    int m_away = 0;
};

volatile std::sig_atomic_t s_stop = 0;

void quitOnSignal(int)
{
    s_stop = 1;
}

} // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    QCommandLineParser cli;
    cli.setApplicationDescription(QStringLiteral("Runs the Vantorelle plug-in in headless OBS."));
    cli.addHelpOption();
    cli.addOption({QStringLiteral("config"), QStringLiteral("OBS module configuration folder."),
                   QStringLiteral("dir"), QDir::tempPath() + QStringLiteral("/vantorelle-host")});
    cli.addOption({QStringLiteral("port"), QStringLiteral("Sharing-server port."),
                   QStringLiteral("port"), QStringLiteral("9001")});
    cli.addOption({QStringLiteral("pictures"), QStringLiteral("Folder for the score pictures."),
                   QStringLiteral("dir"), QDir::tempPath()});
    cli.addOption({QStringLiteral("no-demo-game"),
                   QStringLiteral("Do not play the demo game into the live data.")});
    cli.process(app);

    const QString config = cli.value(QStringLiteral("config"));
    QDir().mkpath(config + QStringLiteral("/vantorelle-obs"));
    QFile settings(config + QStringLiteral("/vantorelle-obs/settings.json"));
    if (!settings.exists() && settings.open(QIODevice::WriteOnly)) {
        settings.write(QJsonDocument(QJsonObject{{"server_enabled", true},
                                                 {"server_port", cli.value("port").toInt()}})
                           .toJson());
        settings.close();
    }

    if (!startObs(config)) {
        out << "Could not start OBS's core (no X display?)\n";
        return 1;
    }
    const bool loaded =
        openModule(QStringLiteral(OBS_PLUGIN_DIR "/text-freetype2.so"),
                   QStringLiteral(OBS_PLUGIN_DATA_DIR "/text-freetype2")) &&
        openModule(QStringLiteral(VANTORELLE_PLUGIN_ROOT "/bin/64bit/vantorelle-obs.so"),
                   QStringLiteral(VANTORELLE_PLUGIN_ROOT "/data"));
    if (!loaded) {
        out << "Could not load the modules\n";
        obs_shutdown();
        return 1;
    }

    OBSDataAutoRelease textSettings = obs_data_create();
    obs_data_set_string(textSettings, "template",
                        "{home_name} {home_score} - {away_score} {away_name}   P{period} {clock}");
    OBSSceneAutoRelease scene = obs_scene_create("Vantorelle demo");
    OBSSourceAutoRelease score =
        obs_source_create("vantorelle_text", "Score", textSettings, nullptr);
    obs_scene_add(scene, score);
    obs_set_output_source(0, obs_scene_get_source(scene));

    out << "Sharing server: nc 127.0.0.1 " << cli.value("port") << "\n";
    out.flush();

    DemoGame game;
    QTimer play;
    QObject::connect(&play, &QTimer::timeout, [&] { applyEnvelope(game.tick()); });
    if (!cli.isSet(QStringLiteral("no-demo-game")))
        play.start(1000);

    const QString picture = cli.value(QStringLiteral("pictures")) + "/vantorelle-score.png";
    QTimer shoot;
    QObject::connect(&shoot, &QTimer::timeout, [&] {
        const QImage image = renderSource(score);
        if (!image.isNull() && image.save(picture))
            out << "Score text picture: " << picture << "\n";
        out.flush();
    });
    shoot.start(5000);

    // Ctrl-C ends the event loop so that OBS shuts down cleanly and the plug-in unloads.
    std::signal(SIGINT, quitOnSignal);
    std::signal(SIGTERM, quitOnSignal);
    QTimer stopWatch;
    QObject::connect(&stopWatch, &QTimer::timeout, [&] {
        if (s_stop)
            app.quit();
    });
    stopWatch.start(100);
    const int code = app.exec();

    obs_set_output_source(0, nullptr);
    score = nullptr;
    scene = nullptr;
    obs_shutdown();
    return code;
}
