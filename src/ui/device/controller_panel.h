#pragma once

#include "admin_panel.h"
#include "controller_catalogue.h"

class QComboBox;

namespace vantorelle {

// Chooses the scoreboard controller the device reads, among those the device itself offers:
// manufacturer, then model, sport and how it is wired, with the device's current choice first.
class ControllerPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit ControllerPanel(DeviceSession* session, QWidget* parent = nullptr);

    void load();
    void apply();
    // The controller the four choices name (empty fields while the list is not read).
    ControllerChoice chosen() const;

private:
    void sessionBecameReady() override { load(); }
    // Refills the choices from `level` (0 manufacturer … 3 input type) from those above it.
    void refill(int level, ControllerChoice picked);

    QList<ControllerChoice> m_controllers;
    QComboBox* m_boxes[4] = {};
};

} // namespace vantorelle
