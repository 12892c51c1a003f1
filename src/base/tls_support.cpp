#include "tls_support.h"

#include "log.h"

#include <QCoreApplication>
#include <QDir>
#include <QSslSocket>
#include <QUrl>

namespace vantorelle {

QString noTlsText()
{
    return QStringLiteral("This OBS has no TLS support, so Vantorelle cannot reach the cloud or "
                          "the device's secure feed.");
}

bool ensureTlsSupport(const QString& pluginFolder)
{
    if (QSslSocket::supportsSsl())
        return true;
    if (!pluginFolder.isEmpty() && QDir(pluginFolder).exists()) {
        QCoreApplication::addLibraryPath(pluginFolder);
        if (QSslSocket::supportsSsl()) {
            logLine(LogLevel::Info,
                    QStringLiteral("TLS through %1 from %2")
                        .arg(QSslSocket::activeBackend(), QDir::toNativeSeparators(pluginFolder)));
            return true;
        }
    }
    static bool told = false;
    if (!std::exchange(told, true))
        logLine(LogLevel::Warning, noTlsText());
    return false;
}

bool lacksTlsFor(const QUrl& url)
{
    return url.scheme() == QLatin1String("https") && !QSslSocket::supportsSsl();
}

} // namespace vantorelle
