#include "wizard_cloud_page.h"

#include "app.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

WizardCloudPage::WizardCloudPage(App* app, DeviceSession* session, const QString& via,
                                 QWidget* parent)
    : QWidget(parent), m_app(app), m_session(session), m_via(via)
{
    QVBoxLayout* layout = sectionLayout(this, "cloudPage", uiText("Wizard.CloudTitle"));
    m_account = wrappedLabel(QStringLiteral("cloudAccount"));
    m_account->setTextFormat(Qt::PlainText); // the account's email
    layout->addWidget(m_account);
    m_code = new QLineEdit;
    m_code->setObjectName(QStringLiteral("claimCodeEdit"));
    m_code->setPlaceholderText(uiText("Wizard.ClaimCodePlaceholder"));
    layout->addWidget(m_code);
    m_add = new QPushButton(uiText("Wizard.AddToAccount"));
    m_add->setObjectName(QStringLiteral("addToAccount"));
    layout->addWidget(m_add, 0, Qt::AlignLeft);
    m_message = wrappedLabel(QStringLiteral("cloudMessage"));
    layout->addWidget(m_message);
    layout->addStretch();
    showMessage(m_message, {}, false);

    connect(m_add, &QPushButton::clicked, this, &WizardCloudPage::addToAccount);
    connect(&m_app->portal(), &PortalClient::signedInChanged, this, &WizardCloudPage::followSignIn);
    followSignIn();
}

void WizardCloudPage::followSignIn()
{
    const bool signedIn = m_app->isSignedIn();
    m_account->setText(signedIn ? uiText("Wizard.AddToAccountAs").arg(m_app->portal().email())
                                : uiText("Wizard.SignInFirst"));
    m_code->setVisible(signedIn);
    m_add->setVisible(signedIn);
}

void WizardCloudPage::addToAccount()
{
    if (!m_session || !m_app->isSignedIn())
        return;
    m_add->setEnabled(false);
    showMessage(m_message, uiText("Wizard.AddingToAccount"), false);
    QPointer<WizardCloudPage> self(this);
    m_session->getDeviceId([self](const RpcResult& result, const QString& id) {
        if (!self)
            return;
        if (!result.ok)
            return self->fail(result.message);
        const QString code = self->m_code->text().trimmed();
        self->m_app->portal().linkDevice(id, self->m_via, code, [self](const PortalResult& linked) {
            if (!self)
                return;
            if (!linked.ok)
                return self->fail(linked.message);
            self->m_app->refreshDevices([self](bool ok, const QString& error) {
                if (!self)
                    return;
                if (!ok)
                    return self->fail(error);
                self->m_add->setEnabled(true);
                showMessage(self->m_message, uiText("Wizard.OnAccount"), false);
            });
        });
    });
}

void WizardCloudPage::fail(const QString& sentence)
{
    m_add->setEnabled(true);
    showMessage(m_message, sentence, true);
}

} // namespace vantorelle
