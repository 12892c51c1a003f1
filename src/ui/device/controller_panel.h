#pragma once

#include "admin_panel.h"
#include "controller_catalogue.h"

class QComboBox;

namespace vantorelle {

class SettingsStore;

// Fills the four controller choices from `level` down with what `controllers` allow below the
// choices above, keeping each earlier pick that is still offered.
void refillControllerChoices(QComboBox* const (&boxes)[4],
                             const QList<ControllerChoice>& controllers, int level,
                             ControllerChoice picked);

// Chooses the scoreboard controller the device reads, among those the device itself offers:
// manufacturer, then model, sport and how it is wired, with the device's current choice first.
class ControllerPanel : public AdminPanel
{
    Q_OBJECT

public:
    // The list the device supplies is kept in `settings` (when given) for the cloud dialog.
    explicit ControllerPanel(DeviceSession* session, SettingsStore* settings = nullptr,
                             QWidget* parent = nullptr);

    void load();
    void apply();
    // The controller the four choices name (empty fields while the list is not read).
    ControllerChoice chosen() const;

private:
    void sessionBecameReady() override { load(); }
    // Refills the choices from `level` (0 manufacturer … 3 input type) from those above it.
    void refill(int level, ControllerChoice picked);

    QList<ControllerChoice> m_controllers;
    SettingsStore* m_settings;
    QComboBox* m_boxes[4] = {};
};

} // namespace vantorelle
