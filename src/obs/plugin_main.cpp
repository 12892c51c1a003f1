// OBS module entry points: create the application object, register the sources, add the dock.

#include "app.h"
#include "ble_helper_bridge.h"
#include "devices_window.h"
#include "dock.h"
#include "graphics_source.h"
#include "hotkeys.h"
#include "log.h"
#include "obs_compat.h"
#include "obs_scene_actions.h"
#include "panel_style.h"
#include "text_source.h"
#include "ui_text.h"
#include "version.h"
#include "websocket_vendor.h"
#include "wrapped_source.h"

#include <obs-frontend-api.h>
#include <obs-module.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QJsonDocument>
#include <QPointer>

#include <mutex>

OBS_DECLARE_MODULE()
OBS_MODULE_USE_DEFAULT_LOCALE("vantorelle-obs", "en-US")

namespace {

constexpr const char* kDockId = "vantorelle-dock";

QPointer<QWidget> s_dock;
// "Vantorelle devices…" in OBS's Tools menu; OBS has no call to take it out, so unload deletes it.
QPointer<QAction> s_devicesAction;
vantorelle::ObsSceneActions s_sceneActions;

// Takes a string libobs allocated for us.
QString takeObsString(char* text)
{
    const QString result = text ? QString::fromUtf8(text) : QString();
    bfree(text);
    return result;
}

vantorelle::AppEnvironment appEnvironment()
{
    vantorelle::AppEnvironment env;
    env.settingsFile = takeObsString(obs_module_config_path("settings.json"));
    env.sessionFile = takeObsString(obs_module_config_path("session.json"));
    env.updateFolder = takeObsString(obs_module_config_path("update"));
    // The module's data folder sits directly under the plug-in root.
    const QString data = takeObsString(obs_find_module_file(obs_current_module(), ""));
    if (!data.isEmpty())
        env.pluginRoot = QDir(data).absoluteFilePath(QStringLiteral(".."));
    env.pluginRoot = QDir::cleanPath(env.pluginRoot);
    env.obsVersion = QString::fromUtf8(obs_get_version_string());
    // OBS on Windows ships Qt without a TLS backend: ours lies in the data folder.
    env.tlsPluginFolder = takeObsString(obs_find_module_file(obs_current_module(), "qt-plugins"));
    // Loading stays short: connections, servers and file work start once OBS runs its loop.
    env.startWhenIdle = true;
    return env;
}

// Procedures for scripts and other plug-ins may be called from any thread, also while the module
// unloads; libobs cannot take them out again. This lock keeps the application object alive
// while a procedure uses it, and unload takes it before letting the object go.
std::mutex s_procedureMutex;

// Procedures: push an envelope into the live data, read the snapshot. The live data guards
// itself; after unload both answer as if nothing were there.
void procApplyEnvelope(void*, calldata_t* data) noexcept
{
    vantorelle::guardCallback("vantorelle_apply_envelope", [data] {
        const char* text = calldata_string(data, "envelope");
        const QJsonDocument doc = QJsonDocument::fromJson(QByteArray(text ? text : ""));
        std::lock_guard lock(s_procedureMutex);
        vantorelle::App* app = vantorelle::App::instance();
        calldata_set_bool(data, "accepted",
                          app && doc.isObject() && app->live().apply(doc.object()));
    });
}

void procSnapshot(void*, calldata_t* data) noexcept
{
    vantorelle::guardCallback("vantorelle_get_snapshot", [data] {
        std::lock_guard lock(s_procedureMutex);
        vantorelle::App* app = vantorelle::App::instance();
        const QByteArray line = app ? app->fields().toJsonLine().trimmed() : QByteArray();
        calldata_set_string(data, "snapshot", line.constData());
    });
}

// Holds a field at a value; false for a name a template cannot use or a value over the cap.
void procHoldField(void*, calldata_t* data) noexcept
{
    vantorelle::guardCallback("vantorelle_hold_field", [data] {
        const char* field = calldata_string(data, "field");
        const char* value = calldata_string(data, "value");
        std::lock_guard lock(s_procedureMutex);
        vantorelle::App* app = vantorelle::App::instance();
        calldata_set_bool(data, "accepted",
                          app && app->fields().hold(QString::fromUtf8(field ? field : ""),
                                                    QString::fromUtf8(value ? value : "")));
    });
}

// Releases one held field, or every one when `field` is empty.
void procReleaseFields(void*, calldata_t* data) noexcept
{
    vantorelle::guardCallback("vantorelle_release_fields", [data] {
        const char* field = calldata_string(data, "field");
        std::lock_guard lock(s_procedureMutex);
        vantorelle::App* app = vantorelle::App::instance();
        if (!app)
            return;
        if (field && *field)
            app->fields().release(QString::fromUtf8(field));
        else
            app->fields().releaseAll();
    });
}

// The Bluetooth helper lies in the plug-in's data folder; without it Bluetooth is not offered.
void locateBluetoothHelper()
{
    vantorelle::BleHelperBridge& bridge = vantorelle::BleHelperBridge::instance();
    const QByteArray name = vantorelle::BleHelperBridge::helperFileName().toUtf8();
    bridge.setHelperPath(takeObsString(obs_find_module_file(obs_current_module(), name)));
    if (bridge.helperPath().isEmpty())
        blog(LOG_DEBUG, "[vantorelle] no Bluetooth helper (%s); Bluetooth is not offered",
             name.constData());
    else
        blog(LOG_DEBUG, "[vantorelle] Bluetooth helper: %s",
             bridge.helperPath().toUtf8().constData());
}

void registerProcedures()
{
    static bool registered = false;
    if (registered)
        return;
    registered = true;
    proc_handler_t* procs = obs_get_proc_handler();
    proc_handler_add(procs, "void vantorelle_apply_envelope(in string envelope, out bool accepted)",
                     procApplyEnvelope, nullptr);
    proc_handler_add(procs, "void vantorelle_get_snapshot(out string snapshot)", procSnapshot,
                     nullptr);
    proc_handler_add(procs,
                     "void vantorelle_hold_field(in string field, in string value, out bool "
                     "accepted)",
                     procHoldField, nullptr);
    proc_handler_add(procs, "void vantorelle_release_fields(in string field)", procReleaseFields,
                     nullptr);
}

void logToObs(vantorelle::LogLevel level, const QString& line)
{
    int obsLevel = LOG_INFO;
    switch (level) {
    case vantorelle::LogLevel::Error:
        obsLevel = LOG_ERROR;
        break;
    case vantorelle::LogLevel::Warning:
        obsLevel = LOG_WARNING;
        break;
    case vantorelle::LogLevel::Info:
        obsLevel = LOG_INFO;
        break;
    case vantorelle::LogLevel::Debug:
        obsLevel = LOG_DEBUG;
        break;
    }
    blog(obsLevel, "%s", line.toUtf8().constData());
}

void addDock()
{
    // Widgets need a widget application; a headless host has none and gets no dock.
    if (!qobject_cast<QApplication*>(QCoreApplication::instance()))
        return;
    vantorelle::App* app = vantorelle::App::instance();
    auto* dock = new vantorelle::Dock(app, &s_sceneActions);
    if (!vantorelle::compat::addDock(kDockId, "Vantorelle", dock)) {
        delete dock;
        return;
    }
    s_dock = dock;
    // Where OBS cannot take a dock out again, its contents must not outlive the application
    // object they show.
    QObject::connect(app, &QObject::destroyed, dock, [dock] { delete dock; });

    // The devices window belongs to the dock, so it goes when the dock goes.
    s_devicesAction = static_cast<QAction*>(
        obs_frontend_add_tools_menu_qaction(obs_module_text("Devices.MenuItem")));
    if (s_devicesAction)
        QObject::connect(s_devicesAction, &QAction::triggered, dock, [] {
            if (vantorelle::App* current = vantorelle::App::instance(); current && s_dock)
                vantorelle::DevicesWindow::open(current, s_dock);
        });
}

} // namespace

MODULE_EXPORT const char* obs_module_name(void)
{
    return "Vantorelle";
}

MODULE_EXPORT const char* obs_module_description(void)
{
    return "Live Vantorelle scoreboard data, graphics and device setup inside OBS.";
}

bool obs_module_load(void)
{
    vantorelle::setLogSink(logToObs);
    blog(LOG_INFO, "[vantorelle] loading plugin %s",
         vantorelle::pluginVersion().toUtf8().constData());

    if (!vantorelle::App::instance())
        vantorelle::App::setInstance(new vantorelle::App(appEnvironment()));
    vantorelle::App* app = vantorelle::App::instance();
    locateBluetoothHelper();

    vantorelle::registerTextSource();
    vantorelle::registerGraphicsSource();
    QObject::connect(&app->fields(), &vantorelle::FieldOverlay::changed, app,
                     &vantorelle::refreshTextSources);
    registerProcedures();
    vantorelle::registerHotkeys();
    vantorelle::setThemedByHost(true);          // OBS's theme colours the messages
    vantorelle::setTextLookup(obs_module_text); // the user's language, English where it has none
    addDock();
    return true;
}

// Every module has loaded: the websocket server, when there is one, takes requests now.
void obs_module_post_load(void)
{
    vantorelle::guardCallback("obs_module_post_load", [] {
        vantorelle::registerWebsocketVendor(vantorelle::App::instance());
    });
}

void obs_module_unload(void)
{
    vantorelle::unregisterWebsocketVendor();
    vantorelle::unregisterHotkeys();
    vantorelle::compat::removeDock(kDockId);
    s_dock.clear();
    delete s_devicesAction;
    vantorelle::BleHelperBridge::instance().shutdown();

    vantorelle::App* app = nullptr;
    {
        std::lock_guard lock(s_procedureMutex);
        app = vantorelle::App::instance();
        vantorelle::App::setInstance(nullptr);
    }
    delete app;

    blog(LOG_INFO, "[vantorelle] plugin unloaded");
    vantorelle::setTextLookup(nullptr);
    vantorelle::setLogSink({});
}
