#pragma once

#include "device_session.h"

#include <QPointer>
#include <QWidget>

class QLabel;
class QLineEdit;
class QPushButton;

namespace vantorelle {

class PasswordChangeForm;

// The setup wizard's sign-in step. It follows the session: progress while signing in, a
// password form when the device wants one, a change-password form when the device insists on a
// new password, and the reason when signing in failed.
class WizardSignInPage : public QWidget
{
    Q_OBJECT

public:
    explicit WizardSignInPage(QWidget* parent = nullptr);

    void follow(DeviceSession* session);
    void showState(DeviceSession::State state, const QString& detail);

Q_SIGNALS:
    // The user gives up on this connection and picks another.
    void startOver();

private:
    void signIn();
    void changePassword();
    QString refusal() const;

    QPointer<DeviceSession> m_session;
    bool m_triedPassword = false; // the user gave a password on this connection
    QLabel* m_progress = nullptr;
    QWidget* m_passwordForm = nullptr;
    QLineEdit* m_password = nullptr;
    PasswordChangeForm* m_changeForm = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
