#include "update_section.h"

#include "panel_style.h"
#include "plugin_updater.h"
#include "settings_store.h"
#include "ui_text.h"

#include <QCheckBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

// What the end of the dock says itself; everything else is the banner's.
bool quietState(PluginUpdater::State state)
{
    return state == PluginUpdater::Idle || state == PluginUpdater::Checking ||
           state == PluginUpdater::UpToDate;
}

} // namespace

UpdateBanner::UpdateBanner(PluginUpdater* updater, QWidget* parent)
    : QWidget(parent), m_updater(updater)
{
    setObjectName(QStringLiteral("updateBannerPanel"));
    auto* layout = new QVBoxLayout(this);
    m_banner = wrappedLabel(QStringLiteral("updateBanner"));
    m_banner->setTextFormat(Qt::PlainText);
    m_details = wrappedLabel(QStringLiteral("updateDetails"));
    m_details->setTextFormat(Qt::PlainText);
    m_progress = new QProgressBar;
    m_progress->setObjectName(QStringLiteral("updateProgress"));
    m_install = new QPushButton(uiText("Update.Install"));
    m_install->setObjectName(QStringLiteral("installUpdate"));
    m_cancel = new QPushButton(uiText("Update.Cancel"));
    m_cancel->setObjectName(QStringLiteral("cancelUpdate"));
    m_download = wrappedLabel(QStringLiteral("downloadLink"));
    m_download->setOpenExternalLinks(true);
    m_restartNote = wrappedLabel(QStringLiteral("updateRestartNote"));
    m_restartNote->setText(uiText("Update.RestartNote"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_progress, 1);
    buttons->addWidget(m_install);
    buttons->addWidget(m_cancel);
    layout->addWidget(m_banner);
    layout->addWidget(m_details);
    layout->addLayout(buttons);
    layout->addWidget(m_download);
    layout->addWidget(m_restartNote);

    connect(m_install, &QPushButton::clicked, m_updater, &PluginUpdater::install);
    connect(m_cancel, &QPushButton::clicked, m_updater, &PluginUpdater::cancel);
    connect(m_updater, &PluginUpdater::stateChanged, this, &UpdateBanner::refresh);
    refresh();
}

void UpdateBanner::refresh()
{
    const PluginUpdater::State state = m_updater->state();
    setVisible(!quietState(state));
    showMessage(m_banner, m_updater->statusText(), state == PluginUpdater::Failed);
    // After a failed download or install the same package can be tried again.
    const bool retry = state == PluginUpdater::Failed && m_updater->hasPackage();
    showAvailable(state == PluginUpdater::Available, state == PluginUpdater::Available || retry);
    m_install->setText(uiText(retry ? "Update.Retry" : "Update.Install"));
    m_cancel->setVisible(m_updater->canCancel());
    m_progress->setVisible(state == PluginUpdater::Downloading ||
                           state == PluginUpdater::Installing);
    // Unpacking and swapping report no progress of their own.
    m_progress->setRange(0, state == PluginUpdater::Installing ? 0 : 100);
    m_progress->setValue(m_updater->downloadPercent());
    m_restartNote->setVisible(state == PluginUpdater::Installed);
}

void UpdateBanner::showAvailable(bool available, bool installable)
{
    const UpdateManifest& manifest = m_updater->manifest();
    QString details;
    if (available) {
        details = manifest.released.isEmpty()
                      ? uiText("Update.Version").arg(manifest.version)
                      : uiText("Update.VersionReleased").arg(manifest.version, manifest.released);
        if (!manifest.notes.isEmpty())
            details += QStringLiteral("\n") + manifest.notes;
    }
    showMessage(m_details, details, false);

    const bool selfUpdate = installable && m_updater->canSelfUpdate();
    const QString page = m_updater->config().downloadPage;
    m_install->setVisible(selfUpdate);
    const bool link = available && !selfUpdate && !page.isEmpty();
    m_download->setText(link ? uiText("Update.DownloadLink")
                                   .arg(page.toHtmlEscaped(), manifest.version.toHtmlEscaped())
                             : QString());
    m_download->setVisible(link);
}

UpdateSection::UpdateSection(PluginUpdater* updater, SettingsStore* settings, QWidget* parent)
    : QWidget(parent), m_updater(updater), m_settings(settings)
{
    auto* layout = sectionLayout(this, "updatePanel", uiText("Update.Title"));
    m_status = wrappedLabel(QStringLiteral("updateStatus"));
    m_status->setTextFormat(Qt::PlainText);
    m_check = new QPushButton(uiText("Update.CheckNow"));
    m_check->setObjectName(QStringLiteral("checkUpdates"));
    m_autoCheck = new QCheckBox(uiText("Update.AutoCheck"));
    m_autoCheck->setObjectName(QStringLiteral("autoCheckUpdates"));
    m_autoCheck->setChecked(m_settings->autoCheckUpdates());
    m_lastCheck = wrappedLabel(QStringLiteral("lastUpdateCheck"));
    for (QWidget* widget : QList<QWidget*>{m_status, m_check, m_autoCheck, m_lastCheck})
        layout->addWidget(widget);

    connect(m_check, &QPushButton::clicked, this, [this] { m_updater->check(true); });
    connect(m_autoCheck, &QCheckBox::toggled, this,
            [this](bool enabled) { m_settings->setAutoCheckUpdates(enabled); });
    connect(m_updater, &PluginUpdater::stateChanged, this, &UpdateSection::refresh);
    refresh();
}

void UpdateSection::refresh()
{
    const PluginUpdater::State state = m_updater->state();
    showMessage(m_status, quietState(state) ? m_updater->statusText() : QString(), false);
    m_check->setEnabled(!m_updater->isBusy() && state != PluginUpdater::Installed);
    const double seconds = m_settings->lastUpdateCheck();
    m_lastCheck->setText(
        seconds <= 0 ? uiText("Update.NotChecked")
                     : uiText("Update.LastChecked")
                           .arg(QLocale().toString(QDateTime::fromSecsSinceEpoch(qint64(seconds)),
                                                   QLocale::ShortFormat)));
}

} // namespace vantorelle
