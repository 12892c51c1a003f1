#pragma once

#include <QString>

class QUrl;

namespace vantorelle {

// Qt makes TLS connections through a backend it loads as a plug-in. OBS on Windows ships Qt
// without one, so the plug-in carries Qt's Schannel backend in its own data folder
// ("qt-plugins/tls/").

// The sentence every TLS user fails with when there is no backend.
QString noTlsText();

// True when this process can make TLS connections, after adding `pluginFolder` (a folder
// holding "tls/"; may be empty) to Qt's plug-in search path when it could not. When it still
// cannot, says so once in the log at warning level.
bool ensureTlsSupport(const QString& pluginFolder);

// True when `url` needs TLS and this process has no backend for it.
bool lacksTlsFor(const QUrl& url);

} // namespace vantorelle
