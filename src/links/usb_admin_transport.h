#pragma once

#include "rpc_transport.h"

#include <QPointer>

namespace vantorelle {

class SerialPort;

// The admin request channel over a USB link: requests go out as type-4 frames (fragmented when
// long); the link reassembles the replies and hands them here to be emitted as `message`.
class UsbAdminTransport : public RpcTransport
{
    Q_OBJECT

public:
    explicit UsbAdminTransport(SerialPort* port, QObject* parent = nullptr);
    ~UsbAdminTransport() override;

    bool isOpen() const override;
    void send(const QByteArray& json) override;

    // One complete reply from the device.
    void deliverReply(const QByteArray& json);

private:
    QPointer<SerialPort> m_port;
};

} // namespace vantorelle
