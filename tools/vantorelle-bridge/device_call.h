#pragma once

#include "command_line.h"

#include <QObject>

#include <memory>

namespace vantorelle::bridge {

class DeviceConnection;

// Signs in to a device, sends one request and prints its result as compact JSON on standard
// output, or its failure sentence on standard error.
class DeviceCall : public QObject
{
    Q_OBJECT

public:
    explicit DeviceCall(const CallCommand& command, QObject* parent = nullptr);
    ~DeviceCall() override;

    void start();

Q_SIGNALS:
    // Emitted once: 0 when the device answered with a result, 1 otherwise.
    void finished(int exitCode);

private:
    void send();
    void finish(int exitCode);

    CallCommand m_command;
    // Set once the outcome is out (or the call is being torn down): nothing more is reported.
    bool m_done = false;
    std::unique_ptr<DeviceConnection> m_device;
};

} // namespace vantorelle::bridge
