#include "obs_harness.h"

#include <obs-nix-platform.h>

#include <QDir>

#include <X11/Xlib.h>

#include <cstdarg>
#include <cstdio>

namespace vantorelle::test {

void ObsHarness::logHandler(int, const char* format, va_list args, void* param)
{
    char buffer[4096];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    auto* self = static_cast<ObsHarness*>(param);
    const QString line = QString::fromUtf8(buffer);
    std::function<void(const QString&)> observer;
    {
        QMutexLocker lock(&self->m_mutex);
        self->m_log << line;
        observer = self->m_observer;
    }
    if (observer)
        observer(line);
}

bool ObsHarness::start(const QString& configDir)
{
    base_set_log_handler(&ObsHarness::logHandler, this);
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return false;
    obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
    obs_set_nix_platform_display(display);
    if (!obs_startup("en-US", configDir.toUtf8().constData(), nullptr))
        return false;
    m_started = true;

    obs_video_info ovi = {};
    ovi.graphics_module = "libobs-opengl";
    ovi.fps_num = 30;
    ovi.fps_den = 1;
    ovi.base_width = ovi.output_width = 640;
    ovi.base_height = ovi.output_height = 360;
    ovi.output_format = VIDEO_FORMAT_NV12;
    ovi.colorspace = VIDEO_CS_709;
    ovi.range = VIDEO_RANGE_PARTIAL;
    ovi.scale_type = OBS_SCALE_BICUBIC;
    ovi.gpu_conversion = true;
    return obs_reset_video(&ovi) == OBS_VIDEO_SUCCESS;
}

bool ObsHarness::openModule(const QString& file, const QString& data, obs_module_t** module)
{
    if (obs_open_module(module, file.toUtf8().constData(), data.toUtf8().constData()) !=
        MODULE_SUCCESS)
        return false;
    return obs_init_module(*module);
}

bool ObsHarness::loadFreetype()
{
    obs_module_t* module = nullptr;
    return openModule(QStringLiteral(OBS_PLUGIN_DIR "/text-freetype2.so"),
                      QStringLiteral(OBS_PLUGIN_DATA_DIR "/text-freetype2"), &module);
}

bool ObsHarness::loadPlugin()
{
    return openModule(QStringLiteral(VANTORELLE_MODULE_FILE),
                      QStringLiteral(VANTORELLE_MODULE_DATA), &m_plugin);
}

QString ObsHarness::pluginRoot()
{
    return QDir::cleanPath(QStringLiteral(VANTORELLE_MODULE_DATA "/.."));
}

void ObsHarness::shutdown()
{
    if (!m_started)
        return;
    m_started = false;
    obs_shutdown();
    m_plugin = nullptr;
}

QStringList ObsHarness::logLines() const
{
    QMutexLocker lock(&m_mutex);
    return m_log;
}

bool ObsHarness::logContains(const QString& text) const
{
    QMutexLocker lock(&m_mutex);
    for (const QString& line : m_log) {
        if (line.contains(text))
            return true;
    }
    return false;
}

void ObsHarness::setLogObserver(std::function<void(const QString&)> observer)
{
    QMutexLocker lock(&m_mutex);
    m_observer = std::move(observer);
}

QList<obs_source_t*> ObsHarness::sourcesOfType(const char* id)
{
    struct Search
    {
        const char* id;
        QList<obs_source_t*> found;
    } search{id, {}};
    obs_enum_all_sources(
        [](void* param, obs_source_t* source) {
            auto* s = static_cast<Search*>(param);
            if (qstrcmp(obs_source_get_id(source), s->id) == 0)
                s->found << source;
            return true;
        },
        &search);
    return search.found;
}

} // namespace vantorelle::test
