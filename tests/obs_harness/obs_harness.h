#pragma once

#include <obs.h>

#include <QMutex>
#include <QString>
#include <QStringList>

#include <functional>

namespace vantorelle::test {

// Runs real libobs without a front end, as OBS itself would for the plug-in: core, video on
// OpenGL (needs an X display), modules opened by path. One per process.
class ObsHarness
{
public:
    // Starts libobs with `configDir` as the modules' configuration folder.
    bool start(const QString& configDir);
    // Opens and initialises Debian's FreeType text module.
    bool loadFreetype();
    // Opens and initialises the built plug-in.
    bool loadPlugin();
    // Shuts libobs down, which unloads every module.
    void shutdown();

    obs_module_t* plugin() const { return m_plugin; }
    // The staged plug-in root the module is loaded from (holds "bin" and "data").
    static QString pluginRoot();
    QStringList logLines() const;
    bool logContains(const QString& text) const;
    // Called with every log line as it is written, on the thread that writes it.
    void setLogObserver(std::function<void(const QString&)> observer);

    // Every source, private ones included, of the given type id.
    static QList<obs_source_t*> sourcesOfType(const char* id);

private:
    static void logHandler(int level, const char* format, va_list args, void* param);
    bool openModule(const QString& file, const QString& data, obs_module_t** module);

    mutable QMutex m_mutex;
    QStringList m_log;
    std::function<void(const QString&)> m_observer;
    obs_module_t* m_plugin = nullptr;
    bool m_started = false;
};

} // namespace vantorelle::test
