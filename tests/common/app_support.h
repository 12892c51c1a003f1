#pragma once

#include "app.h"
#include "test_support.h"

#include <QDir>
#include <QJsonDocument>
#include <QTest>

#include <memory>

namespace vantorelle::test {

// An App environment in `dir` that talks to the portal at `portalUrl`: `settings` (with automatic
// update checks off) written as its settings file, its session file beside it, update checks and
// cloud polls far enough out that no case waits for them.
inline AppEnvironment testAppEnvironment(const QString& dir, const QString& portalUrl,
                                         QJsonObject settings = {})
{
    settings.insert(QStringLiteral("auto_check_updates"), false);
    AppEnvironment env;
    env.settingsFile = QDir(dir).filePath(QStringLiteral("settings.json"));
    env.sessionFile = QDir(dir).filePath(QStringLiteral("session.json"));
    writeFile(env.settingsFile, QJsonDocument(settings).toJson());
    env.portalUrl = portalUrl;
    env.firstUpdateCheckMs = env.updateCheckIntervalMs = 3600000;
    env.sources.pollIntervalMs = 60000;
    return env;
}

// A session signed in with "admin" to the device on `link`; null when it did not get there.
inline std::shared_ptr<DeviceSession> signedInSession(DeviceLink* link)
{
    auto session = std::make_shared<DeviceSession>();
    session->setPassword(QStringLiteral("admin"));
    session->start(link);
    if (!QTest::qWaitFor([&] { return session->state() == DeviceSession::State::Ready; }))
        return {};
    return session;
}

} // namespace vantorelle::test
