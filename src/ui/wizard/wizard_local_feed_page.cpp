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
    layout->addStretch();
    showMessage(m_message, {}, false);
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
                                   result.ok
                                       ? tr("Stored for %1 (%2): address %3, token %4.")
                                             .arg(lan.name, access.deviceId, lan.host, lan.token)
                                       : result.message,
                                   !result.ok);
                   });
}

} // namespace vantorelle
