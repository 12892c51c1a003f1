#include "obs_scene_actions.h"

#include "score_template.h"

#include <obs-frontend-api.h>
#include <obs.hpp>

namespace vantorelle {

namespace {

constexpr const char* kTextType = "vantorelle_text";
constexpr const char* kGraphicsType = "vantorelle_graphics";
constexpr const char* kBrowserType = "browser_source";

// The scene the user is editing; a new reference, null when there is none.
obs_source_t* editedScene()
{
    return obs_frontend_preview_program_mode_active() ? obs_frontend_get_current_preview_scene()
                                                      : obs_frontend_get_current_scene();
}

// `base`, or `base` followed by the first number from 2 on that no source is named yet.
QString uniqueSourceName(const QString& base)
{
    QString name = base;
    for (int n = 2;; ++n) {
        OBSSourceAutoRelease existing = obs_get_source_by_name(name.toUtf8().constData());
        if (!existing)
            return name;
        name = QStringLiteral("%1 %2").arg(base).arg(n);
    }
}

// Creates a source of `type` named after `base` in the edited scene; the new source, or null with
// `failure` set.
OBSSourceAutoRelease addToScene(const char* type, const QString& base, obs_data_t* settings,
                                SceneActionResult* failure)
{
    OBSSourceAutoRelease sceneSource = editedScene();
    obs_scene_t* scene = sceneSource ? obs_scene_from_source(sceneSource) : nullptr;
    if (!scene) {
        failure->message = QStringLiteral("Open a scene in OBS first.");
        return nullptr;
    }
    const QString name = uniqueSourceName(base);
    OBSSourceAutoRelease source =
        obs_source_create(type, name.toUtf8().constData(), settings, nullptr);
    if (!source) {
        failure->message = QStringLiteral("OBS could not create \"%1\".").arg(name);
        return nullptr;
    }
    obs_scene_add(scene, source);
    return source;
}

SceneActionResult added(obs_source_t* source)
{
    return {true, QStringLiteral("Added \"%1\" to the scene.")
                      .arg(QString::fromUtf8(obs_source_get_name(source)))};
}

} // namespace

bool ObsSceneActions::canAddGraphics(QString* reason) const
{
    if (obs_get_source_output_flags(kBrowserType) != 0)
        return true;
    if (reason)
        *reason = QStringLiteral("This OBS has no browser source, so graphics cannot be added.");
    return false;
}

SceneActionResult ObsSceneActions::addScoreText()
{
    OBSDataAutoRelease settings = obs_data_create();
    obs_data_set_string(settings, "template", DefaultScoreTemplate);
    SceneActionResult result;
    OBSSourceAutoRelease source =
        addToScene(kTextType, QStringLiteral("Vantorelle Score"), settings, &result);
    return source ? added(source) : result;
}

SceneActionResult ObsSceneActions::addGraphics()
{
    SceneActionResult result;
    if (!canAddGraphics(&result.message))
        return result;
    OBSSourceAutoRelease source =
        addToScene(kGraphicsType, QStringLiteral("Vantorelle Graphics"), nullptr, &result);
    if (!source)
        return result;
    // The user picks one of the account's graphics outputs there.
    obs_frontend_open_source_properties(source);
    return added(source);
}

} // namespace vantorelle
