#include "libobs_bench.h"

#include "common/obs_harness.h"

#include <obs-module.h>
#include <obs-nix-platform.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>

#include <X11/Xlib.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace vantorelle::bench {

namespace {

QStringList s_obsLog;
std::mutex s_obsLogMutex;

void keepObsLog(int, const char* format, va_list args, void*)
{
    char buffer[4096];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    std::lock_guard lock(s_obsLogMutex);
    s_obsLog << QString::fromUtf8(buffer);
    if (s_obsLog.size() > 60)
        s_obsLog.removeFirst();
}

} // namespace

[[noreturn]] void fail(const QString& why)
{
    std::lock_guard lock(s_obsLogMutex);
    for (const QString& line : std::as_const(s_obsLog))
        std::fprintf(stderr, "  obs: %s\n", qPrintable(line));
    std::fprintf(stderr, "%s: %s\n",
                 qPrintable(QFileInfo(QCoreApplication::applicationFilePath()).fileName()),
                 qPrintable(why));
    std::exit(1);
}

void startObs(const QString& config, uint32_t fps)
{
    base_set_log_handler(keepObsLog, nullptr);
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        fail("no X display (run under xvfb-run)");
    obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
    obs_set_nix_platform_display(display);
    if (!obs_startup("en-US", config.toUtf8().constData(), nullptr))
        fail("obs_startup failed");
    // clang-format off
    obs_video_info video = {"libobs-opengl", fps, 1, 640, 360, 640, 360, VIDEO_FORMAT_NV12, 0,
                            true, VIDEO_CS_709, VIDEO_RANGE_PARTIAL, OBS_SCALE_BICUBIC};
    // clang-format on
    if (obs_reset_video(&video) != OBS_VIDEO_SUCCESS)
        fail("obs_reset_video failed");
    if (!test::openModule(OBS_PLUGIN_DIR "/text-freetype2.so",
                          OBS_PLUGIN_DATA_DIR "/text-freetype2"))
        fail("cannot load text-freetype2.so");
}

void report(const QJsonObject& result)
{
    std::printf("%s\n", QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

QJsonObject runChild(const QStringList& arguments)
{
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), arguments);
    child.waitForFinished(-1);
    QJsonObject result =
        QJsonDocument::fromJson(child.readAllStandardOutput().split('\n').first()).object();
    if (!result.isEmpty() && (child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0))
        result["crashed_at_shutdown"] = true;
    return result;
}

} // namespace vantorelle::bench
