#include "text_source.h"

#include "app.h"
#include "score_template.h"
#include "wrapped_source.h"

#include <obs.hpp>

#include <QString>

#include <array>
#include <mutex>
#include <set>

namespace vantorelle {

namespace {

struct TextInstance : WrappedSource
{
    QString templateText;
    // What the inner source was last told to show.
    QString shownText;
    // Our own copy of the source's settings as OBS last gave them: a refresh reads this, never
    // the source's settings, which OBS may be writing on another thread at that moment.
    obs_data_t* settings = nullptr;
};

// OBS creates, updates and destroys sources on its own threads while live-data changes arrive on
// the UI thread: one lock serialises them, so a destroyed instance is never rendered again.
std::mutex s_mutex;
std::set<TextInstance*> s_instances;

// The Windows text source first, FreeType as the fallback.
constexpr std::array<const char*, 5> kTextTypes = {
    "text_gdiplus_v3", "text_gdiplus_v2", "text_gdiplus", "text_ft2_source_v2", "text_ft2_source"};

// Properties of the wrapped sources that the template replaces or that read text from files.
constexpr std::array<const char*, 9> kRemovedProperties = {
    "text",           "from_file", "text_file", "log_mode",     "log_lines",
    "read_from_file", "file",      "chatlog",   "chatlog_lines"};

const char* availableTextType()
{
    for (const char* type : kTextTypes) {
        if (obs_get_source_output_flags(type) != 0)
            return type;
    }
    return nullptr;
}

const FieldOverlay* liveData()
{
    App* app = App::instance();
    return app ? &app->fields() : nullptr;
}

// Renders the template of the stored settings into the inner source. Without `force`, an
// unchanged text leaves the inner source alone, so a ticking clock does not rebuild every score
// text. Caller holds s_mutex.
void applyLocked(TextInstance* self, bool force)
{
    obs_data_t* settings = self->settings;
    self->templateText = QString::fromUtf8(obs_data_get_string(settings, "template"));
    const QString rendered = renderScoreTemplate(self->templateText, liveData());
    if (!force && rendered == self->shownText)
        return;
    OBSDataAutoRelease copy = obs_data_create();
    obs_data_apply(copy, settings);
    obs_data_set_string(copy, "text", rendered.toUtf8().constData());
    obs_source_update(self->inner, copy);
    self->shownText = rendered;
}

// Caller holds s_mutex.
void storeLocked(TextInstance* self, obs_data_t* settings)
{
    obs_data_release(self->settings);
    self->settings = obs_data_create();
    obs_data_apply(self->settings, settings);
}

const char* textGetName(void*) noexcept
{
    return obs_module_text("VantorelleText");
}

void* textCreate(obs_data_t* settings, obs_source_t* source) noexcept
{
    return guardCallback("vantorelle_text create", [&]() -> void* {
        const char* type = availableTextType();
        if (!type) {
            blog(LOG_ERROR, "[vantorelle] no OBS text source is available on this system");
            return nullptr;
        }
        auto* self = new TextInstance;
        self->source = source;
        self->inner = obs_source_create_private(type, "Vantorelle text", nullptr);
        std::lock_guard lock(s_mutex);
        storeLocked(self, settings);
        applyLocked(self, true);
        s_instances.insert(self);
        return self;
    });
}

void textDestroy(void* data) noexcept
{
    auto* self = static_cast<TextInstance*>(data);
    {
        std::lock_guard lock(s_mutex);
        s_instances.erase(self);
    }
    obs_source_release(self->inner);
    obs_data_release(self->settings);
    delete self;
}

void textGetDefaults(obs_data_t* settings) noexcept
{
    obs_data_set_default_string(settings, "template", DefaultScoreTemplate);
}

void textUpdate(void* data, obs_data_t* settings) noexcept
{
    guardCallback("vantorelle_text update", [&] {
        std::lock_guard lock(s_mutex);
        auto* self = static_cast<TextInstance*>(data);
        storeLocked(self, settings);
        applyLocked(self, true);
    });
}

QString fieldList()
{
    const FieldOverlay* live = liveData();
    const QStringList names = live ? live->fieldNames() : QStringList();
    return names.isEmpty() ? QStringLiteral("home_score, away_score, clock, period")
                           : names.join(QStringLiteral(", "));
}

obs_properties_t* textGetProperties(void* data) noexcept
{
    auto* self = static_cast<TextInstance*>(data);
    return guardCallback("vantorelle_text properties", [&] {
        obs_properties_t* props =
            self && self->inner ? obs_source_properties(self->inner) : obs_properties_create();
        for (const char* name : kRemovedProperties)
            obs_properties_remove_by_name(props, name);
        obs_property_t* templ = obs_properties_add_text(
            props, "template", obs_module_text("TextTemplate"), OBS_TEXT_MULTILINE);

        const char* hintFormat = nullptr;
        if (obs_module_get_string("TextTemplateHint", &hintFormat) && hintFormat && *hintFormat) {
            const QByteArray hint = QString::fromUtf8(hintFormat).arg(fieldList()).toUtf8();
            obs_property_set_long_description(templ, hint.constData());
            obs_properties_add_text(props, "hint", hint.constData(), OBS_TEXT_INFO);
        }
        return props;
    });
}

} // namespace

void registerTextSource()
{
    obs_source_info info = {};
    info.id = "vantorelle_text";
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW;
    info.icon_type = OBS_ICON_TYPE_TEXT;
    info.get_name = textGetName;
    info.create = textCreate;
    info.destroy = textDestroy;
    info.get_width = wrappedWidth;
    info.get_height = wrappedHeight;
    info.get_defaults = textGetDefaults;
    info.get_properties = textGetProperties;
    info.update = textUpdate;
    info.video_render = wrappedVideoRender;
    obs_register_source(&info);
}

void refreshTextSources()
{
    std::lock_guard lock(s_mutex);
    for (TextInstance* self : s_instances)
        applyLocked(self, false);
}

} // namespace vantorelle
