#pragma once

#include <QWidget>

namespace vantorelle {

class App;
class SceneActions;

// The "Vantorelle" dock, read top to bottom: account, device and route, live status, scene
// buttons, sharing server, USB relays and updates. Each section watches one component; the dock
// only arranges them. Without scene actions (no OBS front end) the scene section is left out.
class Dock : public QWidget
{
    Q_OBJECT

public:
    explicit Dock(App* app, SceneActions* sceneActions = nullptr, QWidget* parent = nullptr);
};

} // namespace vantorelle
