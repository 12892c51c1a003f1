#include "app_support.h"

#include "test_support.h"

#include <QDir>
#include <QJsonDocument>

namespace vantorelle::test {

AppEnvironment testAppEnvironment(const QString& dir, const QString& portalUrl,
                                  QJsonObject settings)
{
    settings.insert(QStringLiteral("auto_check_updates"), false);
    const QDir folder(dir);
    writeFile(folder.filePath(QStringLiteral("settings.json")), QJsonDocument(settings).toJson());
    AppEnvironment env;
    env.settingsFile = folder.filePath(QStringLiteral("settings.json"));
    env.sessionFile = folder.filePath(QStringLiteral("session.json"));
    env.portalUrl = portalUrl;
    env.firstUpdateCheckMs = env.updateCheckIntervalMs = 3600000;
    env.sources.pollIntervalMs = 60000;
    return env;
}

} // namespace vantorelle::test
