#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QObject>

namespace vantorelle {

// The type-5 channel: streams the device relays through this computer. Which streams are
// carried is agreed in the hellos; this computer offers none, so whatever arrives has nowhere
// to go and is counted and dropped.
class StreamRelay : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~StreamRelay() override;

    // The "streams" member of the device's hello.
    void configure(const QJsonObject& streams);
    void reset();
    // One type-5 payload from the device.
    void fromDevice(const QByteArray& bytes);

    QJsonObject streams() const { return m_streams; }
    qint64 droppedBytes() const { return m_dropped; }

private:
    QJsonObject m_streams;
    qint64 m_dropped = 0;
};

} // namespace vantorelle
