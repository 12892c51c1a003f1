#pragma once

#include "admin_panel.h"

class QLabel;
class QLineEdit;

namespace vantorelle {

class PasswordChangeForm;
class SettingsStore;

// Who may reach the device: its admin password, the access token that lets OBS (and other
// programs) take its live data on the local network, and its Bluetooth pairing passkey.
class SecurityPanel : public AdminPanel
{
    Q_OBJECT

public:
    // The token is remembered in `settings` for the device's local-network live data.
    SecurityPanel(DeviceSession* session, SettingsStore* settings, QWidget* parent = nullptr);

    void changePassword();
    void showAccessToken();
    void copyAccessToken();
    void showBluetoothPasskey();

private:
    SettingsStore* m_settings;
    PasswordChangeForm* m_password = nullptr;
    QWidget* m_tokenRow = nullptr;
    QLineEdit* m_token = nullptr;
    QLabel* m_passkey = nullptr;
};

} // namespace vantorelle
