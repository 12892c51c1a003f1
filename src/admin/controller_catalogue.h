#pragma once

#include <QJsonArray>
#include <QList>
#include <QString>
#include <QStringList>

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

// The controller list a device supplies, as kept in the settings file, and back. Entries that
// are not objects of four texts are left out, and at most MaxControllers are kept.
inline constexpr qsizetype MaxControllers = 1000;
QList<ControllerChoice> controllersFromJson(const QJsonArray& array);
QJsonArray controllersToJson(const QList<ControllerChoice>& controllers);

// Before any device has supplied its list: the makers whose controllers the devices read, and
// every sport and input type, none narrowing another (the model is typed).
const QStringList& builtInMakers();
const QStringList& knownSports();
const QStringList& knownInputTypes();

// The four choices from the top (0 manufacturer, 1 model, 2 sport, 3 input type): the distinct
// values at `level` of the controllers that match `picked` at every level above, in list order.
QStringList controllerOptions(const QList<ControllerChoice>& controllers, int level,
                              const ControllerChoice& picked);
QString controllerValue(const ControllerChoice& choice, int level);
void setControllerValue(ControllerChoice& choice, int level, const QString& value);

// A word of the catalogue ("current_loop", "basketball") as a label ("Current loop", "Basketball").
QString controllerWordLabel(const QString& word);

} // namespace vantorelle
