#include "security_panel.h"

#include "local_feed_access.h"
#include "panel_style.h"
#include "password_change_form.h"
#include "ui_text.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

SecurityPanel::SecurityPanel(DeviceSession* session, SettingsStore* settings, QWidget* parent)
    : AdminPanel(session, "securityPanel", uiText("Device.Security.Title"), parent),
      m_settings(settings)
{
    body()->addWidget(heading(uiText("Device.Security.AdminPassword")));
    m_password = new PasswordChangeForm;
    registerAction(m_password->button());
    body()->addWidget(m_password);

    body()->addWidget(heading(uiText("Device.Security.AccessToken")));
    QLabel* explain = wrappedLabel(QStringLiteral("accessTokenHint"));
    explain->setText(uiText("Device.Security.AccessTokenHint"));
    body()->addWidget(explain);
    QPushButton* show = addAction(uiText("Device.Security.ShowAccessToken"), "showAccessToken");
    body()->addWidget(show, 0, Qt::AlignLeft);
    m_token = new QLineEdit;
    m_token->setObjectName(QStringLiteral("accessToken"));
    m_token->setReadOnly(true);
    auto* copy = new QPushButton(uiText("Device.Security.Copy"));
    copy->setObjectName(QStringLiteral("copyAccessToken"));
    m_tokenRow = row(m_token, copy);
    m_tokenRow->setVisible(false);
    body()->addWidget(m_tokenRow);

    body()->addWidget(heading(uiText("Device.Security.Bluetooth")));
    QPushButton* passkey = addAction(uiText("Device.Security.ShowPasskey"), "showBlePasskey");
    body()->addWidget(passkey, 0, Qt::AlignLeft);
    m_passkey = addAnswerLabel(QStringLiteral("blePasskey"));
    body()->addStretch();

    connect(m_password, &PasswordChangeForm::submitted, this, &SecurityPanel::changePassword);
    connect(show, &QPushButton::clicked, this, &SecurityPanel::showAccessToken);
    connect(copy, &QPushButton::clicked, this, &SecurityPanel::copyAccessToken);
    connect(passkey, &QPushButton::clicked, this, &SecurityPanel::showBluetoothPasskey);
}

void SecurityPanel::changePassword()
{
    if (!canStart())
        return;
    if (const QString problem = m_password->problem(); !problem.isEmpty())
        return fail(problem);
    begin(uiText("Device.Security.ChangingPassword"));
    session()->changePassword(m_password->current(), m_password->next(),
                              guarded([this](const RpcResult& result) {
                                  if (settle(result, uiText("Device.Security.PasswordChanged")))
                                      m_password->clear();
                              }));
}

void SecurityPanel::showAccessToken()
{
    if (!canStart())
        return;
    begin(uiText("Device.Security.AskingToken"));
    setUpLocalFeed(session(), m_settings,
                   guarded([this](const RpcResult& result, const LocalFeedAccess& access) {
                       if (!settle(result, uiText("Device.Security.LiveDataFrom")
                                               .arg(access.entry.name, access.entry.host)))
                           return;
                       m_token->setText(access.entry.token);
                       m_tokenRow->setVisible(true);
                   }));
}

void SecurityPanel::copyAccessToken()
{
    QGuiApplication::clipboard()->setText(m_token->text());
    if (!isBusy())
        succeed(uiText("Device.Security.TokenCopied"));
}

void SecurityPanel::showBluetoothPasskey()
{
    if (!canStart())
        return;
    begin(uiText("Device.Security.AskingPasskey"));
    session()->getBlePasskey(guarded([this](const RpcResult& result, const QString& passkey) {
        if (settle(result))
            m_passkey->setText(uiText("Device.PairingPasskey").arg(passkey));
    }));
}

} // namespace vantorelle
