#include "graphics_source.h"

#include "app.h"
#include "wrapped_source.h"

#include <obs.hpp>

#include <QString>

#include <mutex>
#include <set>

namespace vantorelle {

namespace {

constexpr int kDefaultWidth = 1920;
constexpr int kDefaultHeight = 1080;
constexpr int kSmallestSide = 16;
constexpr int kRefreshLimitMs = 8000;
constexpr const char* kBrowserType = "browser_source";
// A transparent page without margins or scroll bars.
constexpr const char* kPageCss =
    "body { background-color: rgba(0, 0, 0, 0); margin: 0px auto; overflow: hidden; }";

struct GraphicsInstance : WrappedSource
{
    int width = kDefaultWidth;
    int height = kDefaultHeight;
};

// Refresh waits for the portal in a local event loop, during which OBS may close the properties
// window and destroy the source. What is alive is kept here, so nothing gone is used after the
// wait. Instances are destroyed on OBS's threads, hence the lock.
std::mutex s_aliveMutex;
std::set<const void*> s_alive;
bool s_refreshing = false;

void markAlive(const void* thing, bool alive)
{
    std::lock_guard lock(s_aliveMutex);
    if (alive)
        s_alive.insert(thing);
    else
        s_alive.erase(thing);
}

bool isAlive(const void* thing)
{
    std::lock_guard lock(s_aliveMutex);
    return s_alive.count(thing) != 0;
}

void apply(GraphicsInstance* self, obs_data_t* settings)
{
    const int width = int(obs_data_get_int(settings, "width"));
    const int height = int(obs_data_get_int(settings, "height"));
    self->width = width < kSmallestSide ? kDefaultWidth : width;
    self->height = height < kSmallestSide ? kDefaultHeight : height;

    OBSDataAutoRelease page = obs_data_create();
    obs_data_set_string(page, "url", obs_data_get_string(settings, "url"));
    obs_data_set_int(page, "width", self->width);
    obs_data_set_int(page, "height", self->height);
    obs_data_set_int(page, "fps", 30);
    obs_data_set_bool(page, "fps_custom", true);
    obs_data_set_bool(page, "reroute_audio", false);
    obs_data_set_bool(page, "shutdown", false);
    obs_data_set_bool(page, "restart_when_active", false);
    obs_data_set_string(page, "css", kPageCss);
    obs_source_update(self->inner, page);
}

const char* graphicsGetName(void*) noexcept
{
    return obs_module_text("VantorelleGraphics");
}

void* graphicsCreate(obs_data_t* settings, obs_source_t* source) noexcept
{
    return guardCallback("vantorelle_graphics create", [&]() -> void* {
        if (obs_get_source_output_flags(kBrowserType) == 0) {
            blog(LOG_ERROR,
                 "[vantorelle] this OBS has no browser source, so graphics cannot be shown");
            return nullptr;
        }
        auto* self = new GraphicsInstance;
        self->source = source;
        self->inner = obs_source_create_private(kBrowserType, "Vantorelle graphics", nullptr);
        apply(self, settings);
        markAlive(self, true);
        return self;
    });
}

void graphicsDestroy(void* data) noexcept
{
    auto* self = static_cast<GraphicsInstance*>(data);
    markAlive(self, false);
    obs_source_release(self->inner);
    delete self;
}

void graphicsGetDefaults(obs_data_t* settings) noexcept
{
    obs_data_set_default_int(settings, "width", kDefaultWidth);
    obs_data_set_default_int(settings, "height", kDefaultHeight);
}

void graphicsUpdate(void* data, obs_data_t* settings) noexcept
{
    guardCallback("vantorelle_graphics update",
                  [&] { apply(static_cast<GraphicsInstance*>(data), settings); });
}

// The wrapped page runs only while the source is shown or active.
void graphicsActivate(void* data) noexcept
{
    obs_source_inc_active(static_cast<GraphicsInstance*>(data)->inner);
}

void graphicsDeactivate(void* data) noexcept
{
    obs_source_dec_active(static_cast<GraphicsInstance*>(data)->inner);
}

void graphicsShow(void* data) noexcept
{
    obs_source_inc_showing(static_cast<GraphicsInstance*>(data)->inner);
}

void graphicsHide(void* data) noexcept
{
    obs_source_dec_showing(static_cast<GraphicsInstance*>(data)->inner);
}

void fillOutputList(obs_property_t* list, obs_data_t* settings)
{
    obs_property_list_clear(list);
    App* app = App::instance();
    const QList<GraphicsOutput> outputs = app ? app->outputs() : QList<GraphicsOutput>();
    const QString storedId = QString::fromUtf8(obs_data_get_string(settings, "output_id"));
    bool storedListed = false;
    for (const GraphicsOutput& output : outputs) {
        obs_property_list_add_string(list, output.name.toUtf8().constData(),
                                     output.id.toUtf8().constData());
        storedListed = storedListed || output.id == storedId;
    }
    // A saved choice stays selectable while the portal is unreachable or has dropped it.
    if (!storedId.isEmpty() && !storedListed)
        obs_property_list_insert_string(list, 0, obs_data_get_string(settings, "output_name"),
                                        storedId.toUtf8().constData());
    if (obs_property_list_item_count(list) == 0)
        obs_property_list_add_string(list, obs_module_text("GraphicsNone"), "");
}

QString statusText()
{
    App* app = App::instance();
    if (!app || !app->isSignedIn())
        return QString::fromUtf8(obs_module_text("GraphicsSignIn"));
    if (!app->outputsError().isEmpty())
        return app->outputsError();
    return QString::fromUtf8(obs_module_text("GraphicsFound"))
        .replace(QLatin1String("%1"), QString::number(app->outputs().size()));
}

void setStatus(obs_properties_t* props)
{
    obs_property_set_description(obs_properties_get(props, "status"),
                                 statusText().toUtf8().constData());
}

// The properties of the type itself (no instance) stand for a source with nothing stored.
obs_data_t* settingsOf(GraphicsInstance* self)
{
    return self ? obs_source_get_settings(self->source) : obs_data_create();
}

bool outputChosen(void*, obs_properties_t*, obs_property_t*, obs_data_t* settings) noexcept
{
    return guardCallback("vantorelle_graphics choice", [&] {
        App* app = App::instance();
        const QString id = QString::fromUtf8(obs_data_get_string(settings, "output_id"));
        if (!app || id.isEmpty())
            return false;
        for (const GraphicsOutput& output : app->outputs()) {
            if (output.id != id)
                continue;
            obs_data_set_string(settings, "url", output.url.toUtf8().constData());
            obs_data_set_string(settings, "output_name", output.name.toUtf8().constData());
            obs_data_set_int(settings, "width", output.width);
            obs_data_set_int(settings, "height", output.height);
            return true;
        }
        return false;
    });
}

bool refreshClicked(obs_properties_t* props, obs_property_t*, void* data) noexcept
{
    return guardCallback("vantorelle_graphics refresh", [&] {
        App* app = App::instance();
        // A second click while the first one waits does nothing.
        if (!app || s_refreshing)
            return false;
        s_refreshing = true;
        app->refreshOutputsBlocking(kRefreshLimitMs);
        s_refreshing = false;
        // The window, the source or the whole plug-in may have gone while we waited.
        if (!isAlive(props) || (data && !isAlive(data)) || App::instance() != app)
            return false;
        OBSDataAutoRelease settings = settingsOf(static_cast<GraphicsInstance*>(data));
        fillOutputList(obs_properties_get(props, "output_id"), settings);
        setStatus(props);
        return true;
    });
}

obs_properties_t* graphicsGetProperties(void* data) noexcept
{
    return guardCallback("vantorelle_graphics properties", [&] {
        auto* self = static_cast<GraphicsInstance*>(data);
        obs_properties_t* props = obs_properties_create();
        // The properties tell us when OBS destroys them, through their parameter's destructor.
        markAlive(props, true);
        obs_properties_set_param(props, props, [](void* gone) { markAlive(gone, false); });
        obs_property_t* list =
            obs_properties_add_list(props, "output_id", obs_module_text("GraphicsOutput"),
                                    OBS_COMBO_TYPE_LIST, OBS_COMBO_FORMAT_STRING);
        OBSDataAutoRelease settings = settingsOf(self);
        fillOutputList(list, settings);
        obs_property_set_modified_callback2(list, outputChosen, self);
        obs_properties_add_button2(props, "refresh", obs_module_text("GraphicsRefresh"),
                                   refreshClicked, self);
        obs_properties_add_text(props, "status", "", OBS_TEXT_INFO);
        setStatus(props);
        obs_properties_add_int(props, "width", obs_module_text("Width"), kSmallestSide, 8192, 1);
        obs_properties_add_int(props, "height", obs_module_text("Height"), kSmallestSide, 8192, 1);
        return props;
    });
}

} // namespace

void registerGraphicsSource()
{
    obs_source_info info = {};
    info.id = "vantorelle_graphics";
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW;
    info.icon_type = OBS_ICON_TYPE_BROWSER;
    info.get_name = graphicsGetName;
    info.create = graphicsCreate;
    info.destroy = graphicsDestroy;
    info.get_width = wrappedWidth;
    info.get_height = wrappedHeight;
    info.get_defaults = graphicsGetDefaults;
    info.get_properties = graphicsGetProperties;
    info.update = graphicsUpdate;
    info.activate = graphicsActivate;
    info.deactivate = graphicsDeactivate;
    info.show = graphicsShow;
    info.hide = graphicsHide;
    info.video_render = wrappedVideoRender;
    obs_register_source(&info);
}

} // namespace vantorelle
