#pragma once

#include <QString>

namespace vantorelle {

// What one scene action did: the sentence for the user, and whether it is a failure.
struct SceneActionResult
{
    bool ok = false;
    QString message;
};

// Adds the plug-in's sources to the scene the user is working on. The dock reaches OBS's scenes
// only through this, so it builds and runs without libobs; the module supplies the real one.
class SceneActions
{
public:
    virtual ~SceneActions() = default;

    // Whether graphics can be added at all; when not, `reason` gets one line saying why.
    virtual bool canAddGraphics(QString* reason) const = 0;
    // Adds a score text with the default template under a name no other source has.
    virtual SceneActionResult addScoreText() = 0;
    // Adds a graphics source and opens its properties so the user picks an output.
    virtual SceneActionResult addGraphics() = 0;
};

} // namespace vantorelle
