#include "wizard_sign_in_page.h"

#include "panel_style.h"
#include "password_change_form.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

using State = DeviceSession::State;

WizardSignInPage::WizardSignInPage(QWidget* parent) : QWidget(parent)
{
    QVBoxLayout* layout = sectionLayout(this, "signInPage", tr("Sign in to the device"));
    m_progress = wrappedLabel(QStringLiteral("signInProgress"));
    layout->addWidget(m_progress);

    m_passwordForm = new QWidget;
    auto* passwordLayout = new QVBoxLayout(m_passwordForm);
    passwordLayout->setContentsMargins(0, 0, 0, 0);
    m_password = passwordField("passwordEdit", tr("Admin password"));
    passwordLayout->addWidget(m_password);
    auto* signInButton = new QPushButton(tr("Sign in"));
    signInButton->setObjectName(QStringLiteral("signInButton"));
    passwordLayout->addWidget(signInButton, 0, Qt::AlignLeft);
    layout->addWidget(m_passwordForm);

    m_changeForm = new PasswordChangeForm;
    layout->addWidget(m_changeForm);

    m_message = wrappedLabel(QStringLiteral("signInMessage"));
    layout->addWidget(m_message);
    auto* again = new QPushButton(tr("Choose another connection"));
    again->setObjectName(QStringLiteral("startOver"));
    layout->addWidget(again, 0, Qt::AlignLeft);
    layout->addStretch();

    connect(signInButton, &QPushButton::clicked, this, &WizardSignInPage::signIn);
    connect(m_password, &QLineEdit::returnPressed, this, &WizardSignInPage::signIn);
    connect(m_changeForm, &PasswordChangeForm::submitted, this, &WizardSignInPage::changePassword);
    connect(again, &QPushButton::clicked, this, &WizardSignInPage::startOver);
    showState(State::SigningIn, {});
}

void WizardSignInPage::follow(DeviceSession* session)
{
    m_session = session;
    m_triedPassword = false;
}

void WizardSignInPage::showState(State state, const QString& detail)
{
    m_passwordForm->setVisible(state == State::NeedsPassword);
    m_changeForm->setVisible(state == State::NeedsNewPassword);
    switch (state) {
    case State::NeedsPassword:
        m_progress->setText(tr("Enter the device's admin password."));
        m_password->clear();
        return showMessage(m_message, refusal(), true);
    case State::NeedsNewPassword:
        m_progress->setText(
            tr("The device asks for a new admin password before it can be set up."));
        m_changeForm->setCurrent(m_session ? m_session->password() : QString());
        showMessage(m_message, {}, false);
        return;
    case State::Error:
    case State::Lost:
        m_progress->clear();
        showMessage(m_message, detail, true);
        return;
    default:
        m_progress->setText(tr("Signing in to the device…"));
        showMessage(m_message, {}, false);
        return;
    }
}

// The device's own reason (such as too many attempts) when it gave one.
QString WizardSignInPage::refusal() const
{
    const QString reason = m_session ? m_session->lastError() : QString();
    if (!reason.isEmpty() || !m_triedPassword)
        return reason;
    return tr("The device did not accept that password. Try again.");
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
    if (const QString problem = m_changeForm->problem(); !problem.isEmpty())
        return showMessage(m_message, problem, true);
    if (!m_session)
        return;
    showMessage(m_message, tr("Changing the password…"), false);
    m_session->changePassword(m_changeForm->current(), m_changeForm->next(),
                              [self = QPointer<WizardSignInPage>(this)](const RpcResult& result) {
                                  // Success moves the session on, and the wizard with it.
                                  if (self && !result.ok)
                                      showMessage(self->m_message, result.message, true);
                              });
}

} // namespace vantorelle
