#pragma once

#include "device_session.h"

#include <QPointer>
#include <QWidget>

class QLabel;
class QLineEdit;

namespace vantorelle {

class PasswordChangeForm;

// The setup wizard's sign-in step, shown when the device asks for its password. It follows the
// session: a password form when the device wants one, a change-password form when the device
// insists on a new password, progress while signing in, and the reason when signing in failed.
// The wizard's Next button sends what the page holds.
class WizardSignInPage : public QWidget
{
    Q_OBJECT

public:
    explicit WizardSignInPage(QWidget* parent = nullptr);

    void follow(DeviceSession* session);
    void showState(DeviceSession::State state, const QString& detail);
    // True while a form waits for the user.
    bool canSubmit() const;
    // Signs in with the password typed, or changes it, as the form shown asks.
    void submit();

private:
    void signIn();
    void changePassword();
    QString refusal() const;

    QPointer<DeviceSession> m_session;
    DeviceSession::State m_state = DeviceSession::State::SigningIn;
    bool m_triedPassword = false; // the user gave a password on this connection
    bool m_changing = false;      // a password change waits for the device's answer
    QLabel* m_progress = nullptr;
    QWidget* m_passwordForm = nullptr;
    QLineEdit* m_password = nullptr;
    PasswordChangeForm* m_changeForm = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
