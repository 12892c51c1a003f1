#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QPushButton;

namespace vantorelle {

class PluginUpdater;
class SettingsStore;

// The update banner: what the updater is doing, the available version with its notes, and the
// way to get it; plus the manual check and the automatic-check choice.
class UpdateSection : public QWidget
{
    Q_OBJECT

public:
    UpdateSection(PluginUpdater* updater, SettingsStore* settings, QWidget* parent = nullptr);

private:
    void refresh();
    void showAvailable(bool available, bool installable);
    void showLastCheck();

    PluginUpdater* m_updater;
    SettingsStore* m_settings;
    QLabel* m_banner = nullptr;
    QLabel* m_details = nullptr;
    QPushButton* m_install = nullptr;
    QPushButton* m_cancel = nullptr;
    QLabel* m_download = nullptr;
    QPushButton* m_check = nullptr;
    QCheckBox* m_autoCheck = nullptr;
    QLabel* m_lastCheck = nullptr;
};

} // namespace vantorelle
