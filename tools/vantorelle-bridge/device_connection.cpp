#include "device_connection.h"

#include "console.h"

#include "http_link.h"
#include "usb_link.h"

namespace vantorelle::bridge {

DeviceConnection::DeviceConnection(const DeviceTarget& target, const QString& password,
                                   QObject* parent)
    : QObject(parent), m_target(target), m_password(password),
      m_session(std::make_shared<DeviceSession>())
{
    if (target.route == DeviceTarget::Route::Lan)
        m_link = std::make_unique<HttpLink>(target.address);
    else
        m_link = std::make_unique<UsbLink>(target.address);
    connect(m_session.get(), &DeviceSession::stateChanged, this, &DeviceConnection::onState);
}

DeviceConnection::~DeviceConnection()
{
    m_session->disconnect(this);
    m_session->close();
}

void DeviceConnection::open()
{
    m_session->setPassword(m_password);
    m_session->start(m_link.get());
}

QString DeviceConnection::deviceName() const
{
    if (!m_target.name.isEmpty())
        return m_target.name;
    const QString own = m_session->deviceInfo().value(QLatin1String("name")).toString();
    return own.isEmpty() ? m_target.address : own;
}

void DeviceConnection::onState(DeviceSession::State state, const QString& detail)
{
    if (m_signedIn)
        return;
    const QString text = sentence(state, detail);
    if (!text.isEmpty())
        printError(text);
    using State = DeviceSession::State;
    if (state == State::Ready || (state == State::NeedsNewPassword && m_acceptsPasswordChange)) {
        m_signedIn = true;
        Q_EMIT signedIn();
    } else if (state != State::Connecting && state != State::SigningIn && state != State::Idle) {
        Q_EMIT failed();
    }
}

QString DeviceConnection::sentence(DeviceSession::State state, const QString& detail) const
{
    const QString name = deviceName();
    switch (state) {
    case DeviceSession::State::Idle:
        return {};
    case DeviceSession::State::Connecting:
        return QStringLiteral("Connecting to %1").arg(name);
    case DeviceSession::State::SigningIn:
        return QStringLiteral("Signing in to %1").arg(name);
    case DeviceSession::State::NeedsPassword: {
        if (m_password.isEmpty())
            return QStringLiteral("%1 asks for its admin password: pass it with --password.")
                .arg(name);
        const QString why = m_session->lastError();
        return QStringLiteral("%1 did not accept the password.%2")
            .arg(name, why.isEmpty() ? QString() : QLatin1Char(' ') + why);
    }
    case DeviceSession::State::NeedsNewPassword:
        if (m_acceptsPasswordChange)
            return QStringLiteral("Signed in to %1; it asks for a new admin password.").arg(name);
        return QStringLiteral("%1 asks for a new admin password first: set it with "
                              "\"vantorelle-bridge call ... changePassword\".")
            .arg(name);
    case DeviceSession::State::Ready:
        return QStringLiteral("Signed in to %1").arg(name);
    case DeviceSession::State::Lost:
        return QStringLiteral("Lost the connection to %1%2")
            .arg(name, detail.isEmpty() ? QString() : QStringLiteral(": ") + detail);
    case DeviceSession::State::Error:
        return detail.isEmpty() ? QStringLiteral("Could not sign in to %1.").arg(name) : detail;
    case DeviceSession::State::Restarting:
        return QStringLiteral("%1 is restarting.").arg(name);
    }
    return {};
}

} // namespace vantorelle::bridge
