#include "controller_catalogue.h"

#include <QJsonObject>

namespace vantorelle {

namespace {

QString ControllerChoice::*const kFields[] = {&ControllerChoice::manufacturer,
                                              &ControllerChoice::model, &ControllerChoice::sport,
                                              &ControllerChoice::input_type};
const char* const kKeys[] = {"manufacturer", "model", "sport", "input_type"};

} // namespace

QList<ControllerChoice> controllersFromJson(const QJsonArray& array)
{
    QList<ControllerChoice> controllers;
    for (const QJsonValue& entry : array) {
        if (controllers.size() == MaxControllers)
            break;
        const QJsonObject object = entry.toObject();
        ControllerChoice choice;
        bool complete = true;
        for (int level = 0; level < 4; ++level) {
            const QJsonValue value = object.value(QLatin1String(kKeys[level]));
            complete = complete && value.isString();
            choice.*kFields[level] = value.toString();
        }
        if (complete)
            controllers.append(choice);
    }
    return controllers;
}

QJsonArray controllersToJson(const QList<ControllerChoice>& controllers)
{
    QJsonArray array;
    for (const ControllerChoice& choice : controllers) {
        QJsonObject object;
        for (int level = 0; level < 4; ++level)
            object.insert(QLatin1String(kKeys[level]), choice.*kFields[level]);
        array.append(object);
    }
    return array;
}

const QStringList& builtInMakers()
{
    static const QStringList makers = {QStringLiteral("Daktronics"),
                                       QStringLiteral("NEVCO"),
                                       QStringLiteral("Varsity / Sportable"),
                                       QStringLiteral("Fair-Play"),
                                       QStringLiteral("All-American"),
                                       QStringLiteral("Electromech"),
                                       QStringLiteral("Vantorelle wireless bridge"),
                                       QStringLiteral("Vantorelle ethernet bridge")};
    return makers;
}

const QStringList& knownSports()
{
    static const QStringList sports = {
        QStringLiteral("basketball"), QStringLiteral("hockey"),    QStringLiteral("volleyball"),
        QStringLiteral("football"),   QStringLiteral("soccer"),    QStringLiteral("baseball"),
        QStringLiteral("softball"),   QStringLiteral("wrestling"), QStringLiteral("lacrosse")};
    return sports;
}

const QStringList& knownInputTypes()
{
    static const QStringList inputs = {QStringLiteral("rs232"), QStringLiteral("rs485"),
                                       QStringLiteral("current_loop"), QStringLiteral("wireless"),
                                       QStringLiteral("ethernet")};
    return inputs;
}

QString controllerValue(const ControllerChoice& choice, int level)
{
    return choice.*kFields[level];
}

void setControllerValue(ControllerChoice& choice, int level, const QString& value)
{
    choice.*kFields[level] = value;
}

QStringList controllerOptions(const QList<ControllerChoice>& controllers, int level,
                              const ControllerChoice& picked)
{
    QStringList options;
    for (const ControllerChoice& controller : controllers) {
        bool matches = true;
        for (int above = 0; above < level && matches; ++above)
            matches = controller.*kFields[above] == picked.*kFields[above];
        const QString value = controller.*kFields[level];
        if (matches && !options.contains(value))
            options.append(value);
    }
    return options;
}

QString controllerWordLabel(const QString& word)
{
    if (word == QLatin1String("rs232"))
        return QStringLiteral("RS-232");
    if (word == QLatin1String("rs485"))
        return QStringLiteral("RS-485");
    QString label = word;
    label.replace(QLatin1Char('_'), QLatin1Char(' '));
    if (!label.isEmpty())
        label[0] = label[0].toUpper();
    return label;
}

} // namespace vantorelle
