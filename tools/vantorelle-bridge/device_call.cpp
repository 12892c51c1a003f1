#include "device_call.h"

#include "console.h"
#include "device_connection.h"

#include <QJsonDocument>
#include <QPointer>

namespace vantorelle::bridge {

DeviceCall::DeviceCall(const CallCommand& command, QObject* parent)
    : QObject(parent), m_command(command),
      m_device(std::make_unique<DeviceConnection>(command.target, command.password))
{
    // A device that wants a new password can still be given one through this command.
    m_device->setAcceptsPasswordChange(true);
    connect(m_device.get(), &DeviceConnection::signedIn, this, &DeviceCall::send);
    connect(m_device.get(), &DeviceConnection::failed, this, [this] { finish(1); });
}

DeviceCall::~DeviceCall()
{
    // Closing the session fails the request in flight; that is not an outcome to report.
    m_done = true;
    m_device.reset();
}

void DeviceCall::start()
{
    m_device->open();
}

void DeviceCall::send()
{
    const QPointer<DeviceCall> alive(this);
    m_device->session()->request(
        m_command.method, m_command.params, m_command.timeoutMs, [alive](const RpcResult& result) {
            if (!alive || alive->m_done)
                return;
            if (result.ok)
                writeOut(QJsonDocument(result.result).toJson(QJsonDocument::Compact) + '\n');
            else
                printError(result.message);
            alive->finish(result.ok ? 0 : 1);
        });
}

void DeviceCall::finish(int exitCode)
{
    if (m_done)
        return;
    m_done = true;
    Q_EMIT finished(exitCode);
}

} // namespace vantorelle::bridge
