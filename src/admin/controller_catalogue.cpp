#include "controller_catalogue.h"

namespace vantorelle {

const QList<ControllerChoice>& controllerCatalogue()
{
    static const QList<ControllerChoice> catalogue = {
        {"Vantorelle", "Wireless Bridge", "hockey", "wireless"},
        {"Vantorelle", "Wireless Bridge", "basketball", "wireless"},
        {"Arcline", "AS-500", "hockey", "rs232"},
        {"Arcline", "AS-500", "basketball", "rs232"},
        {"Arcline", "AS-500", "volleyball", "rs232"},
        {"Northgate", "MPX", "basketball", "rs485"},
        {"Northgate", "MPX", "wrestling", "rs485"},
        {"Kestrel Boards", "2600", "hockey", "current_loop"},
        {"Kestrel Boards", "2600", "soccer", "current_loop"},
        {"Fieldhouse", "Touch 4", "football", "rs232"},
        {"Fieldhouse", "Touch 4", "baseball", "rs232"},
    };
    return catalogue;
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
