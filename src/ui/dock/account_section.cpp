#include "account_section.h"

#include "panel_style.h"
#include "portal_client.h"
#include "ui_text.h"

#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

constexpr int kCodeLength = 6;

// The pages of the account section, in the order they are added.
enum Page
{
    SignInPage,
    CodePage,
    SignedInPage
};

QPushButton* namedButton(const QString& text, const char* name)
{
    auto* button = new QPushButton(text);
    button->setObjectName(QLatin1String(name));
    return button;
}

QLineEdit* namedField(const char* name)
{
    auto* field = new QLineEdit;
    field->setObjectName(QLatin1String(name));
    return field;
}

} // namespace

AccountSection::AccountSection(PortalClient* portal, QWidget* parent)
    : QWidget(parent), m_portal(portal)
{
    auto* layout = sectionLayout(this, "accountPanel", uiText("Dock.Account"));
    // The pages in one column, only the current one shown: a hidden page takes no room, and a
    // wrapped line is as tall as its text (a stacked widget would keep the tallest page's height).
    m_pages = {buildSignInPage(), buildCodePage(), buildSignedInPage()};
    for (QWidget* page : std::as_const(m_pages))
        layout->addWidget(page);
    m_error = wrappedLabel(QStringLiteral("accountError"));
    layout->addWidget(m_error);
    showMessage(m_error, {}, false);

    connect(m_portal, &PortalClient::signedInChanged, this, &AccountSection::showSignedIn);
    showSignedIn();
}

QWidget* AccountSection::buildSignInPage()
{
    auto* page = new QWidget;
    auto* form = new QFormLayout(page);
    form->setContentsMargins(0, 0, 0, 0);
    form->setRowWrapPolicy(QFormLayout::WrapLongRows);
    m_email = namedField("email");
    m_email->setPlaceholderText(uiText("Dock.EmailPlaceholder"));
    m_password = namedField("password");
    m_password->setEchoMode(QLineEdit::Password);
    m_signIn = namedButton(uiText("Dock.SignIn"), "signIn");
    form->addRow(uiText("Dock.Email"), m_email);
    form->addRow(uiText("Dock.Password"), m_password);
    form->addRow(m_signIn);
    connect(m_signIn, &QPushButton::clicked, this, &AccountSection::signIn);
    connect(m_password, &QLineEdit::returnPressed, this, &AccountSection::signIn);
    return page;
}

QWidget* AccountSection::buildCodePage()
{
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* hint = new QLabel(uiText("Dock.CodeHint"));
    hint->setWordWrap(true);
    m_code = namedField("code");
    m_code->setMaxLength(kCodeLength);
    m_code->setValidator(new QRegularExpressionValidator(
        QRegularExpression(QStringLiteral("\\d{0,%1}").arg(kCodeLength)), m_code));
    m_verify = namedButton(uiText("Dock.Verify"), "verifyCode");
    m_verify->setEnabled(false);
    auto* back = namedButton(uiText("Dock.Back"), "cancelCode");
    layout->addWidget(hint);
    layout->addWidget(m_code);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_verify);
    buttons->addWidget(back);
    layout->addLayout(buttons);

    connect(m_code, &QLineEdit::textChanged, this,
            [this](const QString& code) { m_verify->setEnabled(code.size() == kCodeLength); });
    connect(m_code, &QLineEdit::returnPressed, this, &AccountSection::submitCode);
    connect(m_verify, &QPushButton::clicked, this, &AccountSection::submitCode);
    connect(back, &QPushButton::clicked, this, [this] {
        m_challenge.clear();
        showMessage(m_error, {}, false);
        showSignedIn();
    });
    return page;
}

QWidget* AccountSection::buildSignedInPage()
{
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    m_account = wrappedLabel(QStringLiteral("accountEmail"));
    auto* signOut = namedButton(uiText("Dock.SignOut"), "signOut");
    layout->addWidget(m_account);
    layout->addWidget(signOut);
    connect(signOut, &QPushButton::clicked, this, [this] { m_portal->signOut(); });
    return page;
}

void AccountSection::showSignedIn()
{
    if (m_portal->isSignedIn()) {
        m_challenge.clear();
        m_password->clear();
        m_account->setText(uiText("Dock.SignedInAs").arg(m_portal->email()));
        showPage(SignedInPage);
    } else {
        showPage(m_challenge.isEmpty() ? SignInPage : CodePage);
    }
}

void AccountSection::showPage(int page)
{
    for (int i = 0; i < m_pages.size(); ++i)
        m_pages.at(i)->setVisible(i == page);
}

void AccountSection::signIn()
{
    if (!m_signIn->isEnabled())
        return;
    setBusy(true);
    showMessage(m_error, {}, false);
    const QPointer<AccountSection> alive(this);
    m_portal->signIn(m_email->text().trimmed(), m_password->text(),
                     [alive](const PortalResult& result) {
                         if (alive)
                             alive->finishSignIn(result);
                     });
}

void AccountSection::finishSignIn(const PortalResult& result)
{
    setBusy(false);
    if (!result.ok) {
        showFailure(result.message);
        return;
    }
    if (result.data.value(QLatin1String("totp_required")).toBool()) {
        m_challenge = result.data.value(QLatin1String("challenge_id")).toString();
        m_code->clear();
        showSignedIn();
        m_code->setFocus();
    }
}

void AccountSection::submitCode()
{
    if (!m_verify->isEnabled() || m_challenge.isEmpty())
        return;
    setBusy(true);
    showMessage(m_error, {}, false);
    const QPointer<AccountSection> alive(this);
    m_portal->signInWithCode(m_challenge, m_code->text(), [alive](const PortalResult& result) {
        if (alive)
            alive->finishCode(result);
    });
}

void AccountSection::finishCode(const PortalResult& result)
{
    setBusy(false);
    if (!result.ok) {
        m_code->clear();
        showFailure(result.message);
    }
}

void AccountSection::showFailure(const QString& message)
{
    showMessage(m_error, message, true);
}

void AccountSection::setBusy(bool busy)
{
    m_signIn->setEnabled(!busy);
    m_verify->setEnabled(!busy && m_code->text().size() == kCodeLength);
}

} // namespace vantorelle
