#pragma once

#include "admin_panel.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QSpinBox;

namespace vantorelle {

// The radio link between a device and a wireless receiver. On a receiver's own USB link it sets
// the receiver's key and channel, reads its status and restarts it; on a device it shows the link
// and starts or stops sending the scores to a receiver.
class WirelessPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit WirelessPanel(DeviceSession* session, QWidget* parent = nullptr);

    bool isForReceiver() const { return m_forReceiver; }

    // Receiver: ask it for a new key; apply the typed key and channel.
    void generateReceiverKey();
    void applyReceiver();
    void readReceiverStatus();
    void restartReceiver();
    // Device: read its link; send to the receiver at the typed address; stop sending.
    void readLink();
    void sendToReceiver();
    void turnOff();

private:
    void buildReceiver();
    void buildDevice();
    void sessionBecameReady() override;
    void receiverAnswered(bool ok, const QString& key, const QString& error,
                          const QString& success);

    // Fixed when the panel is built: a receiver and a device show different controls.
    bool m_forReceiver = false;
    QLineEdit* m_key = nullptr;
    QSpinBox* m_channel = nullptr;
    QLabel* m_receiverStatus = nullptr;
    QLabel* m_linkState = nullptr;
    QLineEdit* m_peer = nullptr;
    QCheckBox* m_generateKey = nullptr;
    QLabel* m_generatedKey = nullptr;
};

} // namespace vantorelle
