#pragma once

#include "scene_actions.h"

namespace vantorelle {

// Scene actions on OBS's own scenes: sources go into the scene being edited, which is the
// preview scene in studio mode and the program scene otherwise.
class ObsSceneActions : public SceneActions
{
public:
    bool canAddGraphics(QString* reason) const override;
    SceneActionResult addScoreText() override;
    SceneActionResult addGraphics() override;
};

} // namespace vantorelle
