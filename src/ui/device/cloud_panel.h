#pragma once

#include "admin_panel.h"

class QCheckBox;
class QLabel;
class QLineEdit;

namespace vantorelle {

class App;
class JsonForm;

// How the device reaches the cloud: its id, the message broker it reports to and its cloud
// credentials; whether USB devices may use this computer's internet; and its Bluetooth pairing
// as the account keeps it.
class CloudPanel : public AdminPanel
{
    Q_OBJECT

public:
    CloudPanel(App* app, DeviceSession* session, QWidget* parent = nullptr);

    void load();
    void changeDeviceId();
    void setDeviceId(const QString& id);
    void saveBroker();
    void provision();
    void revealPairing();
    void storePairing();

private:
    void sessionBecameReady() override { load(); }
    void followSignIn();
    void loadBroker();

    App* m_app;
    QString m_deviceId; // as the device last reported it
    QLineEdit* m_idEdit = nullptr;
    JsonForm* m_broker = nullptr;
    QLineEdit* m_brokerPassword = nullptr;
    QCheckBox* m_share = nullptr;
    QLabel* m_pairingHint = nullptr;
    QWidget* m_pairing = nullptr;
    QLineEdit* m_adminPassword = nullptr;
    QLabel* m_passkey = nullptr;
};

} // namespace vantorelle
