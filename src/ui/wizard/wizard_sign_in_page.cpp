#include "wizard_sign_in_page.h"

#include "panel_style.h"
#include "password_change_form.h"
#include "ui_text.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

using State = DeviceSession::State;

WizardSignInPage::WizardSignInPage(QWidget* parent) : QWidget(parent)
{
    QVBoxLayout* layout = sectionLayout(this, "signInPage", uiText("Wizard.SignInTitle"));
    m_progress = wrappedLabel(QStringLiteral("signInProgress"));
    layout->addWidget(m_progress);

    m_passwordForm = new QWidget;
    auto* passwordLayout = new QVBoxLayout(m_passwordForm);
    passwordLayout->setContentsMargins(0, 0, 0, 0);
    m_password = passwordField("passwordEdit", uiText("Wizard.AdminPassword"));
    passwordLayout->addWidget(m_password);
    layout->addWidget(m_passwordForm);

    m_changeForm = new PasswordChangeForm;
    layout->addWidget(m_changeForm);

    m_message = wrappedLabel(QStringLiteral("signInMessage"));
    layout->addWidget(m_message);
    layout->addStretch();

    // Only the form's button: Enter in its fields reaches the wizard's Next, which submits too.
    connect(m_changeForm->button(), &QPushButton::clicked, this, &WizardSignInPage::changePassword);
    showState(State::SigningIn, {});
}

void WizardSignInPage::follow(DeviceSession* session)
{
    m_session = session;
    m_triedPassword = false;
    m_changing = false;
}

void WizardSignInPage::showState(State state, const QString& detail)
{
    m_state = state;
    m_passwordForm->setVisible(state == State::NeedsPassword);
    m_changeForm->setVisible(state == State::NeedsNewPassword);
    switch (state) {
    case State::NeedsPassword:
        m_progress->setText(uiText("Wizard.EnterPassword"));
        m_password->clear();
        return showMessage(m_message, refusal(), true);
    case State::NeedsNewPassword:
        m_progress->setText(uiText("Wizard.NewPasswordNeeded"));
        m_changeForm->setCurrent(m_session ? m_session->password() : QString());
        showMessage(m_message, {}, false);
        return;
    case State::Error:
    case State::Lost:
        m_progress->clear();
        showMessage(m_message, detail, true);
        return;
    default:
        m_progress->setText(uiText("Wizard.SigningIn"));
        showMessage(m_message, {}, false);
        return;
    }
}

bool WizardSignInPage::canSubmit() const
{
    return m_state == State::NeedsPassword || m_state == State::NeedsNewPassword;
}

void WizardSignInPage::submit()
{
    if (m_state == State::NeedsPassword)
        signIn();
    else if (m_state == State::NeedsNewPassword)
        changePassword();
}

// The device's own reason (such as too many attempts) when it gave one.
QString WizardSignInPage::refusal() const
{
    const QString reason = m_session ? m_session->lastError() : QString();
    if (!reason.isEmpty() || !m_triedPassword)
        return reason;
    return uiText("Wizard.PasswordRefused");
}

void WizardSignInPage::signIn()
{
    if (!m_session)
        return;
    m_triedPassword = true;
    m_session->signIn(m_password->text());
}

void WizardSignInPage::changePassword()
{
    if (m_changing)
        return;
    if (const QString problem = m_changeForm->problem(); !problem.isEmpty())
        return showMessage(m_message, problem, true);
    if (!m_session)
        return;
    m_changing = true;
    showMessage(m_message, uiText("Wizard.ChangingPassword"), false);
    m_session->changePassword(m_changeForm->current(), m_changeForm->next(),
                              [self = QPointer<WizardSignInPage>(this)](const RpcResult& result) {
                                  if (!self)
                                      return;
                                  self->m_changing = false;
                                  // Success moves the session on, and the wizard with it.
                                  if (!result.ok)
                                      showMessage(self->m_message, result.message, true);
                              });
}

} // namespace vantorelle
