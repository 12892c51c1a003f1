#pragma once

#include "admin_panel.h"

#include <QTimer>

class QLabel;
class QProgressBar;

namespace vantorelle {

// The device's firmware: check for an update and install it, following the installation once a
// second until the device restarts; and the same for the firmware of its radio co-processor.
class FirmwarePanel : public AdminPanel
{
    Q_OBJECT

public:
    static constexpr int DefaultProgressIntervalMs = 1000;

    explicit FirmwarePanel(DeviceSession* session, QWidget* parent = nullptr);

    void setProgressInterval(int ms) { m_progressTimer.setInterval(ms); }

    void checkForUpdate();
    void installUpdate();
    void installNow();
    void checkRadio();
    void updateRadio();

private:
    void pollProgress();
    void showProgress(const QJsonObject& progress);
    // The installation is over: the device took it, restarts with it or refused it.
    void endInstallation(bool ok, const QString& text);
    void endUnlessRestarting(const QString& failure);

    QLabel* m_firmware = nullptr;
    QProgressBar* m_progress = nullptr;
    QLabel* m_radio = nullptr;
    QTimer m_progressTimer;
    bool m_progressOutstanding = false;
};

} // namespace vantorelle
