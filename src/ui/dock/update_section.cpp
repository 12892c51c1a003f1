#include "update_section.h"

#include "panel_style.h"
#include "plugin_updater.h"
#include "settings_store.h"

#include <QCheckBox>
#include <QDateTime>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

UpdateSection::UpdateSection(PluginUpdater* updater, SettingsStore* settings, QWidget* parent)
    : QWidget(parent), m_updater(updater), m_settings(settings)
{
    auto* layout = sectionLayout(this, "updatePanel", QStringLiteral("Updates"));
    m_banner = wrappedLabel(QStringLiteral("updateBanner"));
    m_details = wrappedLabel(QStringLiteral("updateDetails"));
    m_details->setTextFormat(Qt::PlainText);
    m_install = new QPushButton(QStringLiteral("Install"));
    m_install->setObjectName(QStringLiteral("installUpdate"));
    m_cancel = new QPushButton(QStringLiteral("Cancel"));
    m_cancel->setObjectName(QStringLiteral("cancelUpdate"));
    m_download = wrappedLabel(QStringLiteral("downloadLink"));
    m_download->setOpenExternalLinks(true);
    m_check = new QPushButton(QStringLiteral("Check now"));
    m_check->setObjectName(QStringLiteral("checkUpdates"));
    m_autoCheck = new QCheckBox(QStringLiteral("Check for updates automatically"));
    m_autoCheck->setObjectName(QStringLiteral("autoCheckUpdates"));
    m_autoCheck->setChecked(m_settings->autoCheckUpdates());
    m_lastCheck = wrappedLabel(QStringLiteral("lastUpdateCheck"));
    const QList<QWidget*> rows = {m_banner,   m_details, m_install,   m_cancel,
                                  m_download, m_check,   m_autoCheck, m_lastCheck};
    for (QWidget* widget : rows)
        layout->addWidget(widget);

    connect(m_install, &QPushButton::clicked, m_updater, &PluginUpdater::install);
    connect(m_cancel, &QPushButton::clicked, m_updater, &PluginUpdater::cancel);
    connect(m_check, &QPushButton::clicked, this, [this] { m_updater->check(true); });
    connect(m_autoCheck, &QCheckBox::toggled, this,
            [this](bool enabled) { m_settings->setAutoCheckUpdates(enabled); });
    connect(m_updater, &PluginUpdater::stateChanged, this, &UpdateSection::refresh);
    refresh();
}

void UpdateSection::refresh()
{
    const PluginUpdater::State state = m_updater->state();
    showMessage(m_banner, m_updater->statusText(), state == PluginUpdater::Failed);
    // After a failed download or install the same package can be tried again.
    showAvailable(state == PluginUpdater::Available,
                  state == PluginUpdater::Available ||
                      (state == PluginUpdater::Failed && m_updater->hasPackage()));
    m_cancel->setVisible(m_updater->canCancel());
    m_check->setEnabled(!m_updater->isBusy() && state != PluginUpdater::Installed);
    showLastCheck();
}

void UpdateSection::showAvailable(bool available, bool installable)
{
    const UpdateManifest& manifest = m_updater->manifest();
    QString details;
    if (available) {
        details = manifest.released.isEmpty() ? QStringLiteral("Version %1").arg(manifest.version)
                                              : QStringLiteral("Version %1, released %2")
                                                    .arg(manifest.version, manifest.released);
        if (!manifest.notes.isEmpty())
            details += QStringLiteral("\n") + manifest.notes;
    }
    showMessage(m_details, details, false);

    const bool selfUpdate = installable && m_updater->canSelfUpdate();
    const QString page = m_updater->config().downloadPage;
    m_install->setVisible(selfUpdate);
    const bool link = available && !selfUpdate && !page.isEmpty();
    m_download->setText(link ? QStringLiteral("<a href=\"%1\">Download version %2</a>")
                                   .arg(page.toHtmlEscaped(), manifest.version.toHtmlEscaped())
                             : QString());
    m_download->setVisible(link);
}

void UpdateSection::showLastCheck()
{
    const double seconds = m_settings->lastUpdateCheck();
    if (seconds <= 0) {
        m_lastCheck->setText(QStringLiteral("Not checked yet"));
        return;
    }
    const QDateTime when = QDateTime::fromSecsSinceEpoch(qint64(seconds));
    m_lastCheck->setText(
        QStringLiteral("Last checked %1").arg(QLocale().toString(when, QLocale::ShortFormat)));
}

} // namespace vantorelle
