#include "obs_compat.h"

#include "wrapped_source.h"

#include <obs-frontend-api.h>
#include <obs.h>
#include <util/config-file.h>

#include <QDockWidget>
#include <QMainWindow>
#include <QPointer>
#include <QWidget>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace vantorelle::compat {

namespace {

// A front-end call looked up by name in the running OBS, or nullptr when it has none. The module
// is built against the oldest OBS it supports and loads in newer ones, so a call that came or
// went since then must not be linked: a missing import would keep the module from loading.
void* frontendCall(const char* name)
{
#ifdef _WIN32
    const HMODULE frontend = GetModuleHandleW(L"obs-frontend-api.dll");
    return frontend ? reinterpret_cast<void*>(GetProcAddress(frontend, name)) : nullptr;
#else
    Dl_info library{};
    if (!dladdr(reinterpret_cast<void*>(&obs_frontend_add_event_callback), &library))
        return nullptr;
    void* frontend = dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (!frontend)
        return nullptr;
    void* call = dlsym(frontend, name);
    dlclose(frontend);
    return call;
#endif
}

// Where the front end keeps its window layout: the user's configuration from OBS 31 on, the
// global one before (OBS 31 deprecated the call that reads it). nullptr when it cannot be read.
config_t* layoutConfig()
{
    const bool userConfig = obs_get_version() >= MAKE_SEMANTIC_VERSION(31, 0, 0);
    using ConfigCall = config_t* (*)();
    const auto call = reinterpret_cast<ConfigCall>(frontendCall(
        userConfig ? "obs_frontend_get_user_config" : "obs_frontend_get_global_config"));
    return call ? call() : nullptr;
}

// OBS lays out a fresh configuration's docks itself and hides those of plug-ins; the first run
// should show the plug-in at once. Later runs keep whatever the user arranged.
QPointer<QWidget> s_firstRunDock;

void onFrontendEvent(enum obs_frontend_event event, void*) noexcept
{
    guardCallback("front-end event", [event] {
        if (event != OBS_FRONTEND_EVENT_FINISHED_LOADING || !s_firstRunDock)
            return;
        // Without the configuration a first run cannot be told apart: leave the layout to OBS.
        config_t* config = layoutConfig();
        if (!config || config_get_string(config, "BasicWindow", "DockState"))
            return;
        for (QWidget* w = s_firstRunDock; w; w = w->parentWidget()) {
            if (auto* dock = qobject_cast<QDockWidget*>(w)) {
                dock->setFloating(false);
                dock->show();
                return;
            }
        }
    });
}

void showOnFirstRun(QWidget* widget)
{
    s_firstRunDock = widget;
    obs_frontend_add_event_callback(onFrontendEvent, nullptr);
}

void forgetFirstRun()
{
    obs_frontend_remove_event_callback(onFrontendEvent, nullptr);
    s_firstRunDock.clear();
}

} // namespace

#if LIBOBS_API_VER >= MAKE_SEMANTIC_VERSION(30, 0, 0)

bool addDock(const char* id, const char* title, QWidget* widget)
{
    if (!obs_frontend_add_dock_by_id(id, title, widget))
        return false;
    showOnFirstRun(widget);
    return true;
}

void removeDock(const char* id)
{
    forgetFirstRun();
    obs_frontend_remove_dock(id);
}

#else

bool addDock(const char* id, const char* title, QWidget* widget)
{
    auto* dock = new QDockWidget;
    dock->setObjectName(QString::fromUtf8(id));
    dock->setWindowTitle(QString::fromUtf8(title));
    dock->setWidget(widget);
    dock->setFeatures(QDockWidget::DockWidgetClosable | QDockWidget::DockWidgetMovable |
                      QDockWidget::DockWidgetFloatable);
    if (!obs_frontend_add_dock(dock)) {
        widget->setParent(nullptr);
        delete dock;
        return false;
    }
    // This OBS only lists the dock in its Docks menu: place it beside the others. OBS restores
    // the user's own arrangement over this once its window state is loaded.
    if (auto* window = static_cast<QMainWindow*>(obs_frontend_get_main_window())) {
        window->addDockWidget(Qt::RightDockWidgetArea, dock);
        dock->show();
    }
    showOnFirstRun(widget);
    return true;
}

void removeDock(const char*)
{
    forgetFirstRun();
    // This OBS has no call to take a dock out; its main window owns it and closes it.
}

#endif

} // namespace vantorelle::compat
