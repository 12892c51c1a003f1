#include "usb_admin_transport.h"

#include "frame_codec.h"
#include "serial_port.h"

namespace vantorelle {

UsbAdminTransport::UsbAdminTransport(SerialPort* port, QObject* parent)
    : RpcTransport(parent), m_port(port)
{}

UsbAdminTransport::~UsbAdminTransport() = default;

bool UsbAdminTransport::isOpen() const
{
    return m_port && m_port->isOpen();
}

void UsbAdminTransport::send(const QByteArray& json)
{
    if (!isOpen())
        return Q_EMIT sendFailed(QStringLiteral("disconnected"),
                                 QStringLiteral("The USB device is not connected"));
    const QList<QByteArray> frames = encodeAdminRequest(json);
    if (frames.isEmpty())
        return Q_EMIT sendFailed(QStringLiteral("request_too_large"),
                                 QStringLiteral("That request is too large for the device"));
    for (const QByteArray& frame : frames) {
        if (!m_port->write(frame))
            return Q_EMIT sendFailed(QStringLiteral("write_failed"),
                                     QStringLiteral("Could not write to the USB device"));
    }
}

void UsbAdminTransport::deliverReply(const QByteArray& json)
{
    Q_EMIT message(json);
}

} // namespace vantorelle
