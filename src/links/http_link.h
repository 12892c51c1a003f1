#pragma once

#include "device_link.h"

#include <QNetworkAccessManager>
#include <QString>

namespace vantorelle {

class HttpAdminTransport;

// The link to a device on the local network. Opening only checks that the device's web
// interface answers; administration runs over its HTTP admin transport. Live data comes through
// the TLS feed, not through this link.
class HttpLink : public DeviceLink
{
    Q_OBJECT

public:
    static constexpr int kDefaultProbeTimeoutMs = 8000;

    // `address` is a host, optionally followed by ":port" (1..65535).
    explicit HttpLink(const QString& address, QObject* parent = nullptr);
    ~HttpLink() override;

    QString kind() const override { return QStringLiteral("lan"); }
    void open() override;
    void close() override;
    RpcTransport* adminTransport() override;
    bool isRemote() const override { return true; }

    QString host() const { return m_host; }
    // 0 when the address named no port (http's default applies).
    int port() const { return m_port; }
    // Longest wait for the device's answer to the status probe.
    void setProbeTimeout(int ms) { m_probeTimeoutMs = ms; }

private:
    QString m_host;
    HttpAdminTransport* m_transport = nullptr;
    QNetworkAccessManager m_network;
    int m_port = 0;
    // Raised by every open() and close(), so that an earlier probe's late answer counts for
    // nothing.
    quint32 m_generation = 0;
    int m_probeTimeoutMs = kDefaultProbeTimeoutMs;
};

} // namespace vantorelle
