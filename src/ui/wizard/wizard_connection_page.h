#pragma once

#include "ble_helper_bridge.h"
#include "serial_port.h"

#include <QList>
#include <QString>
#include <QWidget>

#include <functional>

class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QRadioButton;

namespace vantorelle {

// The first step of the setup wizard: how the computer reaches the device. A USB port from the
// list, an address on the local network that the user types, or, when the Bluetooth helper is
// there, a device found over Bluetooth. The wizard's Next button connects.
class WizardConnectionPage : public QWidget
{
    Q_OBJECT

public:
    using PortLister = std::function<QList<UsbPortInfo>()>;

    // `bluetooth` null or without its helper: Bluetooth is not offered.
    WizardConnectionPage(const QString& lastPort, PortLister lister, BleHelperBridge* bluetooth,
                         QWidget* parent = nullptr);

    void refreshPorts();
    void scanBluetooth();
    // Announces the connection chosen, or says in red what is missing.
    void connectChosen();
    // Opening runs: the page says so.
    void showWaiting();
    // Opening failed: the sentence in red.
    void showFailure(const QString& sentence);
    // A remark that is no failure, such as an attempt the user stopped.
    void showNote(const QString& sentence);

Q_SIGNALS:
    void usbChosen(const QString& port);
    // `host` is already normalised.
    void networkChosen(const QString& host);
    void bluetoothChosen(const QString& address, const QString& name, const QString& passkey);

private:
    void updateMode();
    QWidget* buildBluetoothBox();
    void showBluetoothDevices(const QList<BleDevice>& devices);

    PortLister m_lister;
    QString m_preferred;
    QRadioButton* m_usb = nullptr;
    QRadioButton* m_network = nullptr;
    QRadioButton* m_bluetooth = nullptr;
    QWidget* m_usbBox = nullptr;
    QWidget* m_networkBox = nullptr;
    QWidget* m_bluetoothBox = nullptr;
    BleHelperBridge* m_bridge = nullptr; // set only when Bluetooth is offered
    QListWidget* m_bleDevices = nullptr;
    QLabel* m_bleCount = nullptr;
    QPushButton* m_scan = nullptr;
    QLineEdit* m_passkey = nullptr;
    QListWidget* m_ports = nullptr;
    QLabel* m_count = nullptr;
    QLineEdit* m_address = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
