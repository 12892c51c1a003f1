#include "wizard_local_feed_page.h"

#include "local_feed_access.h"
#include "panel_style.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

WizardLocalFeedPage::WizardLocalFeedPage(DeviceSession* session, SettingsStore* settings,
                                         QWidget* parent)
    : QWidget(parent), m_session(session), m_settings(settings)
{
    QVBoxLayout* layout = sectionLayout(this, "localFeedPage", tr("Live data on your network"));
    QLabel* explain = wrappedLabel(QStringLiteral("localFeedHint"));
    explain->setText(tr("OBS can take the scores straight from the device when both are on the "
                        "same network, without going through the cloud."));
    layout->addWidget(explain);
    m_enable = new QPushButton(tr("Enable live data on this network"));
    m_enable->setObjectName(QStringLiteral("enableLiveData"));
    layout->addWidget(m_enable, 0, Qt::AlignLeft);
    m_message = wrappedLabel(QStringLiteral("localFeedMessage"));
    layout->addWidget(m_message);
    m_showToken = new QPushButton(tr("Show the access token"));
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
    showMessage(m_message, tr("Setting up live data…"), false);
    setUpLocalFeed(m_session, m_settings,
                   [self = QPointer<WizardLocalFeedPage>(this)](const RpcResult& result,
                                                                const LocalFeedAccess& access) {
                       if (!self)
                           return;
                       self->m_enable->setEnabled(true);
                       const LanEntry& lan = access.entry;
                       showMessage(self->m_message,
                                   result.ok ? tr("Stored for %1 (%2): address %3, with its access "
                                                  "token.")
                                                   .arg(lan.name, access.deviceId, lan.host)
                                             : result.message,
                                   !result.ok);
                       self->m_token->setText(result.ok ? lan.token : QString());
                       self->m_showToken->setChecked(false);
                       self->m_showToken->setVisible(result.ok);
                   });
}

} // namespace vantorelle
