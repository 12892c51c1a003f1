#include "hotkeys.h"

#include "app.h"
#include "wrapped_source.h"

#include <obs-frontend-api.h>
#include <obs-module.h>

#include <QMetaObject>

#include <utility>

namespace vantorelle {

namespace {

struct Hotkey
{
    const char* name;        // also the key of its bindings in the scene collection
    const char* description; // locale key
    void (*action)(App&);
    obs_hotkey_id id = OBS_INVALID_HOTKEY_ID;
};

Hotkey s_hotkeys[] = {
    {"vantorelle.release_holds", "HotkeyReleaseHolds", [](App& app) { app.fields().releaseAll(); }},
    {"vantorelle.reconnect", "HotkeyReconnect", [](App& app) { app.reconnect(); }},
};

// Runs on OBS's hotkey thread: the action goes to the UI thread.
void onHotkey(void* data, obs_hotkey_id, obs_hotkey_t*, bool pressed) noexcept
{
    guardCallback("vantorelle hotkey", [&] {
        App* app = App::instance();
        if (!pressed || !app)
            return;
        const auto* hotkey = static_cast<const Hotkey*>(data);
        QMetaObject::invokeMethod(
            app,
            [hotkey] {
                if (App* current = App::instance())
                    hotkey->action(*current);
            },
            Qt::QueuedConnection);
    });
}

void onSave(obs_data_t* data, bool saving, void*) noexcept
{
    guardCallback("vantorelle hotkey bindings", [&] {
        for (Hotkey& hotkey : s_hotkeys) {
            if (hotkey.id == OBS_INVALID_HOTKEY_ID)
                continue;
            if (saving) {
                obs_data_array_t* bindings = obs_hotkey_save(hotkey.id);
                obs_data_set_array(data, hotkey.name, bindings);
                obs_data_array_release(bindings);
            } else {
                obs_data_array_t* bindings = obs_data_get_array(data, hotkey.name);
                obs_hotkey_load(hotkey.id, bindings);
                obs_data_array_release(bindings);
            }
        }
    });
}

} // namespace

void registerHotkeys()
{
    for (Hotkey& hotkey : s_hotkeys) {
        if (hotkey.id == OBS_INVALID_HOTKEY_ID)
            hotkey.id = obs_hotkey_register_frontend(
                hotkey.name, obs_module_text(hotkey.description), onHotkey, &hotkey);
    }
    obs_frontend_add_save_callback(onSave, nullptr);
}

void unregisterHotkeys()
{
    obs_frontend_remove_save_callback(onSave, nullptr);
    for (Hotkey& hotkey : s_hotkeys) {
        if (hotkey.id != OBS_INVALID_HOTKEY_ID)
            obs_hotkey_unregister(std::exchange(hotkey.id, OBS_INVALID_HOTKEY_ID));
    }
}

} // namespace vantorelle
