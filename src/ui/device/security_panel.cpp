#include "security_panel.h"

#include "local_feed_access.h"
#include "panel_style.h"
#include "password_change_form.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

SecurityPanel::SecurityPanel(DeviceSession* session, SettingsStore* settings, QWidget* parent)
    : AdminPanel(session, "securityPanel", QStringLiteral("Security"), parent), m_settings(settings)
{
    body()->addWidget(heading(QStringLiteral("Admin password")));
    m_password = new PasswordChangeForm;
    registerAction(m_password->button());
    body()->addWidget(m_password);

    body()->addWidget(heading(QStringLiteral("Access token")));
    QLabel* explain = wrappedLabel(QStringLiteral("accessTokenHint"));
    explain->setText(QStringLiteral("OBS and other programs on your network use this token to "
                                    "take the live data straight from the device."));
    body()->addWidget(explain);
    QPushButton* show = addAction(QStringLiteral("Show access token"), "showAccessToken");
    body()->addWidget(show, 0, Qt::AlignLeft);
    m_token = new QLineEdit;
    m_token->setObjectName(QStringLiteral("accessToken"));
    m_token->setReadOnly(true);
    auto* copy = new QPushButton(QStringLiteral("Copy"));
    copy->setObjectName(QStringLiteral("copyAccessToken"));
    m_tokenRow = row(m_token, copy);
    m_tokenRow->setVisible(false);
    body()->addWidget(m_tokenRow);

    body()->addWidget(heading(QStringLiteral("Bluetooth")));
    QPushButton* passkey = addAction(QStringLiteral("Show pairing passkey"), "showBlePasskey");
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
    begin(QStringLiteral("Changing the admin password…"));
    session()->changePassword(
        m_password->current(), m_password->next(), guarded([this](const RpcResult& result) {
            if (settle(result, QStringLiteral("The admin password was changed.")))
                m_password->clear();
        }));
}

void SecurityPanel::showAccessToken()
{
    if (!canStart())
        return;
    begin(QStringLiteral("Asking the device for its access token…"));
    setUpLocalFeed(session(), m_settings,
                   guarded([this](const RpcResult& result, const LocalFeedAccess& access) {
                       if (!settle(result, QStringLiteral("OBS now takes live data from %1 at %2 "
                                                          "on your network when you choose it.")
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
        succeed(QStringLiteral("The access token is on the clipboard."));
}

void SecurityPanel::showBluetoothPasskey()
{
    if (!canStart())
        return;
    begin(QStringLiteral("Asking the device for its pairing passkey…"));
    session()->getBlePasskey(guarded([this](const RpcResult& result, const QString& passkey) {
        if (settle(result))
            m_passkey->setText(QStringLiteral("Pairing passkey: %1").arg(passkey));
    }));
}

} // namespace vantorelle
