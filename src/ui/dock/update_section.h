#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;

namespace vantorelle {

class PluginUpdater;
class SettingsStore;

// The banner at the top of the dock while there is something to do about an update: the
// version with its notes, Install (Retry after a failure), the download's progress with Cancel,
// a failure, and once installed that it takes effect when OBS restarts. Hidden otherwise.
class UpdateBanner : public QWidget
{
    Q_OBJECT

public:
    explicit UpdateBanner(PluginUpdater* updater, QWidget* parent = nullptr);

private:
    void refresh();
    void showAvailable(bool available, bool installable);

    PluginUpdater* m_updater;
    QLabel* m_banner = nullptr;
    QLabel* m_details = nullptr;
    QProgressBar* m_progress = nullptr;
    QPushButton* m_install = nullptr;
    QPushButton* m_cancel = nullptr;
    QLabel* m_download = nullptr;
    QLabel* m_restartNote = nullptr;
};

// The update settings at the end of the dock: the manual check with its outcome, and the
// automatic-check choice.
class UpdateSection : public QWidget
{
    Q_OBJECT

public:
    UpdateSection(PluginUpdater* updater, SettingsStore* settings, QWidget* parent = nullptr);

private:
    void refresh();

    PluginUpdater* m_updater;
    SettingsStore* m_settings;
    QLabel* m_status = nullptr;
    QPushButton* m_check = nullptr;
    QCheckBox* m_autoCheck = nullptr;
    QLabel* m_lastCheck = nullptr;
};

} // namespace vantorelle
