#pragma once

#include "serial_backend.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>
#ifdef Q_OS_WIN
#include <QWinEventNotifier>
#else
#include <QSocketNotifier>
#endif

#include <optional>

namespace vantorelle {

// One entry of the port list shown when the user picks a USB device.
struct UsbPortInfo
{
    QString port;        // the name to open (COM7; /dev/ttyACM0 on Linux)
    QString description; // the system's name for the device, else the port name
    bool likely = false; // the hardware looks like one of ours

    bool operator==(const UsbPortInfo&) const = default;
};

// Opens `name` with the line settings the device expects. On failure returns nothing and, when
// `errorText` is given, writes the sentence for the user into it.
std::optional<serial::NativeHandle> openComPort(const QString& name, QString* errorText = nullptr,
                                                int writeStallMs = serial::DefaultWriteStallMs);

// The present serial ports. `systemRoot` replaces the system's device tree (tests, Linux only).
QList<UsbPortInfo> listSerialPorts(const QString& systemRoot = {});

// The device's radio chip carries USB vendor 303A.
bool isLikelyVantorelle(const QString& hardwareId);

// An open serial port read on the event loop: as soon as the system says that bytes arrived (the
// descriptor is readable; on Windows, a wait on the port sets an event), and on a timer as a
// safety net. Reads never block; a write may block for up to the stall limit. Its owner opens it
// and decides what a failure means.
class SerialPort : public QObject
{
    Q_OBJECT

public:
    static constexpr int DefaultPollIntervalMs = 15;
    static constexpr int ReadsPerTick = 8;
    static constexpr qsizetype ReadChunkBytes = 4096;

    explicit SerialPort(const QString& portName = {}, QObject* parent = nullptr);
    ~SerialPort() override;

    QString portName() const { return m_portName; }
    void setPortName(const QString& name) { m_portName = name; }
    // How long a write may make no progress before it fails (applies from the next open).
    void setWriteStallLimit(int ms) { m_writeStallMs = ms; }
    int writeStallLimit() const { return m_writeStallMs; }
    // How often the port is read when nothing says that bytes arrived (applies from the next open).
    void setPollInterval(int ms) { m_pollIntervalMs = ms; }

    // Closes first, then opens the stored port and starts polling. On failure the port stays
    // closed and `errorText` (when given) holds the sentence for the user.
    bool open(QString* errorText = nullptr);
    // Stops polling and releases the port; nothing happens when it is closed already.
    void close();
    bool isOpen() const { return m_handle.has_value(); }

    // Writes the whole block; false when the port is closed, a write fails or stalls. A failed
    // write leaves the port open and emits nothing.
    bool write(const QByteArray& bytes);

public Q_SLOTS:
    // One tick: up to ReadsPerTick reads, one readyRead per read that brought bytes (on Windows
    // the wait for more starts again after them).
    void pollRead();

Q_SIGNALS:
    void readyRead(const QByteArray& data);
    // The port failed while open (unplugged); it is closed when this is emitted.
    void errorOccurred(const QString& message);

private:
    void fail();
#ifdef Q_OS_WIN
    void armReadWake();
#endif

    QString m_portName;
    std::optional<serial::NativeHandle> m_handle;
    QTimer m_timer;
    // Wakes the read as soon as bytes arrive (or the device hangs up); on Windows none when the
    // driver cannot wait for that.
#ifdef Q_OS_WIN
    QWinEventNotifier* m_notifier = nullptr;
#else
    QSocketNotifier* m_notifier = nullptr;
#endif
    int m_pollIntervalMs = DefaultPollIntervalMs;
    int m_writeStallMs = serial::DefaultWriteStallMs;
};

} // namespace vantorelle
