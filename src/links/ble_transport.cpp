#include "ble_transport.h"

#include "ble_helper_bridge.h"

namespace vantorelle {

BleTransport::BleTransport(BleHelperBridge* bridge, const QString& address, QObject* parent)
    : RpcTransport(parent), m_bridge(bridge), m_address(address)
{
    connect(m_bridge, &BleHelperBridge::message, this,
            [this](const QString& address, const QByteArray& json) {
                if (address == m_address)
                    Q_EMIT message(json);
            });
}

void BleTransport::send(const QByteArray& json)
{
    if (!m_open || !m_bridge->send(m_address, json))
        Q_EMIT sendFailed(QStringLiteral("disconnected"),
                          QStringLiteral("The Bluetooth device is not connected"));
}

} // namespace vantorelle
