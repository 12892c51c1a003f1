#include "wizard_local_feed_page.h"

#include "local_feed_access.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

WizardLocalFeedPage::WizardLocalFeedPage(DeviceSession* session, SettingsStore* settings,
                                         QWidget* parent)
    : QWidget(parent), m_session(session), m_settings(settings)
{
    QVBoxLayout* layout = sectionLayout(this, "localFeedPage", uiText("Wizard.LocalFeedTitle"));
    QLabel* explain = wrappedLabel(QStringLiteral("localFeedHint"));
    explain->setText(uiText("Wizard.LocalFeedHint"));
    layout->addWidget(explain);
    m_enable = new QPushButton(uiText("Wizard.EnableLiveData"));
    m_enable->setObjectName(QStringLiteral("enableLiveData"));
    layout->addWidget(m_enable, 0, Qt::AlignLeft);
    m_message = wrappedLabel(QStringLiteral("localFeedMessage"));
    layout->addWidget(m_message);
    m_showToken = new QPushButton(uiText("Wizard.ShowToken"));
    m_showToken->setObjectName(QStringLiteral("showToken"));
    m_showToken->setCheckable(true);
    m_showToken->hide();
    layout->addWidget(m_showToken, 0, Qt::AlignLeft);
    m_token = wrappedLabel(QStringLiteral("accessToken"));
    m_token->setTextFormat(Qt::PlainText);
    m_token->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_token->hide();
    layout->addWidget(m_token);
    layout->addStretch();
    showMessage(m_message, {}, false);
    connect(m_showToken, &QPushButton::toggled, m_token, &QLabel::setVisible);
    connect(m_enable, &QPushButton::clicked, this, &WizardLocalFeedPage::enable);
}

void WizardLocalFeedPage::enable()
{
    if (!m_session)
        return;
    m_enable->setEnabled(false);
    showMessage(m_message, uiText("Wizard.SettingUpLiveData"), false);
    setUpLocalFeed(
        m_session, m_settings,
        [self = QPointer<WizardLocalFeedPage>(this)](const RpcResult& result,
                                                     const LocalFeedAccess& access) {
            if (!self)
                return;
            self->m_enable->setEnabled(true);
            const LanEntry& lan = access.entry;
            showMessage(
                self->m_message,
                result.ok ? uiText("Wizard.LiveDataStored").arg(lan.name, access.deviceId, lan.host)
                          : result.message,
                !result.ok);
            self->m_token->setText(result.ok ? lan.token : QString());
            self->m_showToken->setChecked(false);
            self->m_showToken->setVisible(result.ok);
        });
}

} // namespace vantorelle
