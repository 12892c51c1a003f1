#include "portal_account.h"

#include "address_override.h"
#include "console.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace vantorelle::bridge {

QString portalUrl()
{
    const QString fromEnvironment = addressOverride("VANTORELLE_PORTAL_URL");
    return fromEnvironment.isEmpty() ? QStringLiteral(VANTORELLE_PORTAL_URL) : fromEnvironment;
}

QString defaultSessionFile()
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation))
        .filePath(QStringLiteral("session.json"));
}

PortalAccount::PortalAccount(const QString& baseUrl, const QString& sessionFile, QObject* parent)
    : PortalClient(baseUrl, parent)
{
    jar()->setPath(sessionFile);
}

void PortalAccount::signInAs(const QString& email)
{
    const auto password = readSecret(QStringLiteral("Password for %1: ").arg(email));
    if (!password) {
        printError(QStringLiteral("No password given."));
        return Q_EMIT finished(1);
    }
    signIn(email, *password, [this](const PortalResult& result) { onSignInReply(result); });
}

void PortalAccount::onSignInReply(const PortalResult& result)
{
    if (!result.ok || !result.data.value(QLatin1String("totp_required")).toBool())
        return report(result);
    const auto code = readSecret(QStringLiteral("One-time code: "));
    if (!code) {
        printError(QStringLiteral("No one-time code given."));
        return Q_EMIT finished(1);
    }
    signInWithCode(result.data.value(QLatin1String("challenge_id")).toString(), code->trimmed(),
                   [this](const PortalResult& second) { report(second); });
}

void PortalAccount::report(const PortalResult& result)
{
    if (!result.ok) {
        printError(result.message);
        return Q_EMIT finished(1);
    }
    printError(
        QStringLiteral("Signed in as %1. The session is kept in %2.").arg(email(), jar()->path()));
    Q_EMIT finished(0);
}

void PortalAccount::signOutAndForget()
{
    if (!QFile::exists(jar()->path())) {
        printError(QStringLiteral("Not signed in."));
        return Q_EMIT finished(0);
    }
    jar()->load();
    // The local session goes whatever the portal answers: an unreachable portal must not keep
    // the user signed in here.
    request(
        "POST", QStringLiteral("/auth/logout"), std::nullopt,
        [this](const PortalResult&) {
            jar()->clear();
            printError(QStringLiteral("Signed out."));
            Q_EMIT finished(0);
        },
        false);
}

} // namespace vantorelle::bridge
