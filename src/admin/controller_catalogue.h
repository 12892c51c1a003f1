#pragma once

#include <QList>
#include <QString>

namespace vantorelle {

// One scoreboard controller a device can read: who made it, which model, for which sport, and
// how it is wired to the device.
struct ControllerChoice
{
    QString manufacturer;
    QString model;
    QString sport;
    QString input_type;
};

// The scoreboard controllers the devices support, for choosing one without asking a device.
const QList<ControllerChoice>& controllerCatalogue();

// A word of the catalogue ("current_loop", "basketball") as a label ("Current loop", "Basketball").
QString controllerWordLabel(const QString& word);

} // namespace vantorelle
