#pragma once

#include "command_line.h"

// The session header needs the link complete wherever it is included.
#include "device_link.h"
#include "field_files.h"
#include "hosted_server.h"
#include "live_data.h"
#include "portal_client.h"
#include "source_manager.h"

#include <QObject>
#include <QString>

#include <memory>

namespace vantorelle::bridge {

class DeviceConnection;

// Follows one device as the plug-in's source manager does: over a USB session, the device's
// live feed on the local network, or the portal. Prints status sentences to standard error,
// optionally every snapshot as a JSON line on standard output, and optionally shares the live
// data through the sharing server, over HTTP alone and as one text file per field.
class Watch : public QObject
{
    Q_OBJECT

public:
    // `portalUrl` and `sessionFile` matter only for a device followed through the portal.
    Watch(const WatchCommand& command, const QString& portalUrl, const QString& sessionFile,
          QObject* parent = nullptr);
    // Leaves the source, closes the link and stops the server.
    ~Watch() override;

    // Starts the server (when asked) and begins following the device. False when the server
    // could not listen; the sentence has been printed.
    bool start();

Q_SIGNALS:
    // Following cannot go on (the device refused the sign-in, the portal session is gone).
    void failed();

private:
    bool startServer(HostedServer& server, quint16 port, const QString& what);
    QJsonObject answer(const QString& op) const;
    void writeFiles();
    void followUsb();
    void followCloud();
    void printSnapshot();
    void printStatus();

    WatchCommand m_command;
    QString m_sessionFile;
    LiveData m_live;
    PortalClient m_portal;
    SourceManager m_sources;
    HostedServer m_server;
    HostedServer m_httpServer;
    std::unique_ptr<FieldFiles> m_files;
    QString m_filesProblem; // the last failure printed, so that a lasting one is told once
    std::unique_ptr<DeviceConnection> m_device;
};

} // namespace vantorelle::bridge
