#include "ble_link.h"

#include "ble_helper_bridge.h"
#include "ble_transport.h"

#include <QPointer>

namespace vantorelle {

BleLink::BleLink(const QString& address, const QString& name, const QString& passkey,
                 BleHelperBridge* bridge, QObject* parent)
    : DeviceLink(parent), m_address(address), m_name(name), m_passkey(passkey),
      m_bridge(bridge ? bridge : &BleHelperBridge::instance()),
      m_transport(new BleTransport(m_bridge, address, this))
{
    connect(m_bridge, &BleHelperBridge::deviceLost, this, &BleLink::onDeviceLost);
    connect(m_bridge, &BleHelperBridge::envelope, this,
            [this](const QString& address, const QJsonObject& data) {
                if (address == m_address && m_connected)
                    Q_EMIT envelope(data);
            });
}

BleLink::~BleLink()
{
    close();
}

void BleLink::open()
{
    close();
    const quint32 generation = m_generation;
    m_bridge->connectDevice(
        m_address, m_passkey,
        [self = QPointer<BleLink>(this), generation](const RpcResult& result) {
            if (!self || generation != self->m_generation) {
                // Nobody wants this connection any more.
                if (result.ok && self)
                    self->m_bridge->disconnectDevice(self->m_address);
                return;
            }
            if (!result.ok)
                return Q_EMIT self->failed(QStringLiteral("open_failed"), result.message);
            self->m_connected = true;
            self->m_transport->setOpen(true);
            QJsonObject info = result.result.value(QLatin1String("info")).toObject();
            if (!info.contains(QLatin1String("name")) && !self->m_name.isEmpty())
                info.insert(QLatin1String("name"), self->m_name);
            Q_EMIT self->opened(info);
        });
}

void BleLink::close()
{
    ++m_generation;
    m_transport->setOpen(false);
    if (std::exchange(m_connected, false))
        m_bridge->disconnectDevice(m_address);
}

RpcTransport* BleLink::adminTransport()
{
    return m_transport;
}

void BleLink::onDeviceLost(const QString& address, const QString& reason)
{
    if (address != m_address || !m_connected)
        return;
    m_connected = false;
    m_transport->setOpen(false);
    Q_EMIT closed(reason);
}

} // namespace vantorelle
