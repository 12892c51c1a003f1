#pragma once

#include "device_link.h"

#include <QString>

namespace vantorelle {

class BleHelperBridge;
class BleTransport;

// The link to a device over Bluetooth, through the helper bridge. Opening connects (and pairs,
// with the passkey when the device asks for one); administration runs over its transport. The
// device is remote, so its live data is polled like a network device's; what it pushes by
// itself is passed on too.
class BleLink : public DeviceLink
{
    Q_OBJECT

public:
    // `bridge` null: the plug-in's one bridge.
    explicit BleLink(const QString& address, const QString& name = {}, const QString& passkey = {},
                     BleHelperBridge* bridge = nullptr, QObject* parent = nullptr);
    ~BleLink() override;

    QString kind() const override { return QStringLiteral("ble"); }
    void open() override;
    void close() override;
    RpcTransport* adminTransport() override;
    bool isRemote() const override { return true; }

    QString address() const { return m_address; }
    QString name() const { return m_name; }

private:
    void onDeviceLost(const QString& address, const QString& reason);

    QString m_address;
    QString m_name;
    QString m_passkey;
    BleHelperBridge* m_bridge;
    BleTransport* m_transport;
    bool m_connected = false;
    // Raised by every open() and close(), so that a late answer to an earlier open() counts for
    // nothing.
    quint32 m_generation = 0;
};

} // namespace vantorelle
