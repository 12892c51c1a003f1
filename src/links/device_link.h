#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QString>

namespace vantorelle {

class RpcTransport;

// One link to one device (USB, network or Bluetooth): it opens the route, reports what the
// device says about itself, delivers live-data envelopes and hands out the request channel
// that administers the device.
class DeviceLink : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~DeviceLink() override;

    // A short name of the route: "usb", "lan" or "ble".
    virtual QString kind() const = 0;
    // Starts connecting; the outcome arrives as `opened` or `failed`.
    virtual void open() = 0;
    // Stops everything. Emits nothing: the caller already knows it closed the link.
    virtual void close() = 0;
    // The request channel to the device, owned by the link.
    virtual RpcTransport* adminTransport() = 0;
    // True when the device is reached through something other than a cable to this computer.
    virtual bool isRemote() const = 0;

    // Milliseconds since the device last sent anything at all (envelopes, answers, replies to
    // keep-alive pings); -1 for a link that does not keep track.
    qint64 msSinceHeard() const { return m_heard.isValid() ? m_heard.elapsed() : -1; }

Q_SIGNALS:
    // `info` is what the device reported about itself (for USB its hello; a wireless receiver's
    // status carries "receiver": true).
    void opened(const QJsonObject& info);
    // The link was lost (not emitted by close()); `reason` is a sentence for the user.
    void closed(const QString& reason);
    // One live-data envelope.
    void envelope(const QJsonObject& envelope);
    // The link could not be opened: a machine code ("open_failed", "no_response",
    // "unreachable") and a sentence for the user.
    void failed(const QString& code, const QString& message);

protected:
    // The device just sent something.
    void noteHeard() { m_heard.start(); }
    void forgetHeard() { m_heard.invalidate(); }

private:
    QElapsedTimer m_heard;
};

} // namespace vantorelle
