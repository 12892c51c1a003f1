#include "wizard_local_feed_page.h"

#include "core/settings_store.h"
#include "panel_style.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

void fetchDeviceId(DeviceSession* session,
                   std::function<void(const RpcResult& result, const QString& id)> done)
{
    session->request(QStringLiteral("getDeviceId"), {}, session->settings().requestTimeoutMs,
                     [done = std::move(done)](const RpcResult& result) {
                         done(result,
                              result.ok ? result.result.value("device_id").toString() : QString());
                     });
}

WizardLocalFeedPage::WizardLocalFeedPage(DeviceSession* session, SettingsStore* settings,
                                         const QString& typedHost, QWidget* parent)
    : QWidget(parent), m_session(session), m_settings(settings), m_typedHost(typedHost)
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
    QPointer<WizardLocalFeedPage> self(this);
    m_session->ensureApiToken([self](const RpcResult& result, const QString& token) {
        if (!self || !self->m_session)
            return;
        if (!result.ok)
            return self->fail(result.message);
        fetchDeviceId(self->m_session, [self, token](const RpcResult& idResult, const QString& id) {
            if (!self || !self->m_session)
                return;
            if (id.isEmpty())
                return self->fail(idResult.ok ? tr("The device did not tell its id.")
                                              : idResult.message);
            self->m_session->refreshStatus([self, token, id](const RpcResult& status) {
                if (!self)
                    return;
                if (!status.ok)
                    return self->fail(status.message);
                self->store(token, id, status.result);
            });
        });
    });
}

void WizardLocalFeedPage::store(const QString& token, const QString& id, const QJsonObject& status)
{
    QString host = status.value("wifi_sta_ip").toString();
    if (host.isEmpty())
        host = m_typedHost;
    if (host.isEmpty())
        return fail(tr("The device is not on a network yet. Join it to a Wi-Fi network first, "
                       "then try again."));
    QString name = status.value("name").toString();
    if (name.isEmpty())
        name = id;
    m_settings->setLanEntry(id, host, token, name);
    m_enable->setEnabled(true);
    showMessage(m_message,
                tr("Stored for %1 (%2): address %3, token %4.").arg(name, id, host, token), false);
}

void WizardLocalFeedPage::fail(const QString& sentence)
{
    m_enable->setEnabled(true);
    showMessage(m_message, sentence, true);
}

} // namespace vantorelle
