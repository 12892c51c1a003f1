#include "wizard_cloud_page.h"

#include "app.h"
#include "panel_style.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

WizardCloudPage::WizardCloudPage(App* app, DeviceSession* session, const QString& via,
                                 QWidget* parent)
    : QWidget(parent), m_app(app), m_session(session), m_via(via)
{
    QVBoxLayout* layout = sectionLayout(this, "cloudPage", tr("Your account"));
    m_account = wrappedLabel(QStringLiteral("cloudAccount"));
    layout->addWidget(m_account);
    m_code = new QLineEdit;
    m_code->setObjectName(QStringLiteral("claimCodeEdit"));
    m_code->setPlaceholderText(tr("Claim code (only if the device shows one)"));
    layout->addWidget(m_code);
    m_add = new QPushButton(tr("Add to my account"));
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
    m_account->setText(signedIn
                           ? tr("Add this device to the account %1.").arg(m_app->portal().email())
                           : tr("Sign in to your account in the dock to add this device "
                                "to it."));
    m_code->setVisible(signedIn);
    m_add->setVisible(signedIn);
}

void WizardCloudPage::addToAccount()
{
    if (!m_session || !m_app->isSignedIn())
        return;
    m_add->setEnabled(false);
    showMessage(m_message, tr("Adding the device to your account…"), false);
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
                showMessage(self->m_message, tr("The device is now on your account."), false);
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
