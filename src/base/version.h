#pragma once

#include <QByteArray>
#include <QString>

namespace vantorelle {

// The plug-in's own version, as shown to users and sent to devices and servers.
inline QString pluginVersion()
{
    return QStringLiteral(VANTORELLE_VERSION);
}

// "User-Agent" sent with every HTTP request.
inline QByteArray userAgent()
{
    return QByteArrayLiteral("Vantorelle-OBS/" VANTORELLE_VERSION);
}

} // namespace vantorelle
