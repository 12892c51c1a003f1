#pragma once

#include "portal_client.h"

#include <QString>

namespace vantorelle::bridge {

// The portal's base address: VANTORELLE_PORTAL_URL from the environment when set, else the
// address built in.
QString portalUrl();
// "session.json" in the user's configuration folder for vantorelle.
QString defaultSessionFile();

// Signs in to the portal or out of it from the command line, keeping the session cookies in a
// file for later runs.
class PortalAccount : public PortalClient
{
    Q_OBJECT

public:
    PortalAccount(const QString& baseUrl, const QString& sessionFile, QObject* parent = nullptr);

    // Reads the password (and, when the account asks for it, the one-time code) and signs in.
    void signInAs(const QString& email);
    // Tells the portal, waits for its answer and forgets the kept session either way.
    void signOutAndForget();

Q_SIGNALS:
    // Emitted once per command: 0 on success, 1 on failure (the sentence has been printed).
    void finished(int exitCode);

private:
    void onSignInReply(const PortalResult& result);
    void report(const PortalResult& result);
};

} // namespace vantorelle::bridge
