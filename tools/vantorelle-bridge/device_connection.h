#pragma once

#include "command_line.h"

#include "device_link.h"
#include "device_session.h"

#include <QObject>
#include <QString>

#include <memory>

namespace vantorelle::bridge {

// A signed-in session with one device over USB or the local network. Opens the link, signs in
// with the given password and tells the user on standard error how far it got; the first time
// the session is ready, `signedIn` fires and the state sentences stop (the owner speaks from
// then on).
class DeviceConnection : public QObject
{
    Q_OBJECT

public:
    DeviceConnection(const DeviceTarget& target, const QString& password,
                     QObject* parent = nullptr);
    // Closes the session and with it the link.
    ~DeviceConnection() override;

    // A device that asks for a new admin password still counts as signed in (a request can
    // then change it).
    void setAcceptsPasswordChange(bool accepts) { m_acceptsPasswordChange = accepts; }
    void open();

    std::shared_ptr<DeviceSession> session() const { return m_session; }
    // The name given on the command line, else the device's own, else its address.
    QString deviceName() const;

Q_SIGNALS:
    void signedIn();
    // The sign-in cannot go on; the sentence has been printed already.
    void failed();

private:
    void onState(DeviceSession::State state, const QString& detail);
    QString sentence(DeviceSession::State state, const QString& detail) const;

    DeviceTarget m_target;
    QString m_password;
    bool m_acceptsPasswordChange = false;
    bool m_signedIn = false;
    std::unique_ptr<DeviceLink> m_link;
    std::shared_ptr<DeviceSession> m_session;
};

} // namespace vantorelle::bridge
