#pragma once

#include "rpc_transport.h"

#include <QString>

namespace vantorelle {

class BleHelperBridge;

// The request channel to a device over Bluetooth: each request document travels through the
// helper bridge to the device at one address, and its replies come back the same way.
class BleTransport : public RpcTransport
{
    Q_OBJECT

public:
    BleTransport(BleHelperBridge* bridge, const QString& address, QObject* parent = nullptr);

    bool isOpen() const override { return m_open; }
    void send(const QByteArray& json) override;
    // The link opens and closes the channel.
    void setOpen(bool open) { m_open = open; }

private:
    BleHelperBridge* m_bridge;
    QString m_address;
    bool m_open = false;
};

} // namespace vantorelle
