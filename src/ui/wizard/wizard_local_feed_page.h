#pragma once

#include "device_session.h"

#include <QPointer>
#include <QWidget>

class QLabel;
class QPushButton;

namespace vantorelle {

class SettingsStore;

// Lets OBS take the device's live data straight from it on the local network: the device hands
// out its feed token, and its address, token and name are remembered under its id.
class WizardLocalFeedPage : public QWidget
{
    Q_OBJECT

public:
    WizardLocalFeedPage(DeviceSession* session, SettingsStore* settings, QWidget* parent = nullptr);

    void enable();

private:
    QPointer<DeviceSession> m_session;
    SettingsStore* m_settings;
    QPushButton* m_enable = nullptr;
    QLabel* m_message = nullptr;
    // The token stays hidden (streamers share their screens) until the user asks to see it.
    QPushButton* m_showToken = nullptr;
    QLabel* m_token = nullptr;
};

} // namespace vantorelle
