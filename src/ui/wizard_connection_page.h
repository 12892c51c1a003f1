#pragma once

#include "links/serial_port.h"

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

// The first step of the setup wizard: how the computer reaches the device. Either a USB port
// from the list, or an address on the local network that the user types.
class WizardConnectionPage : public QWidget
{
    Q_OBJECT

public:
    using PortLister = std::function<QList<UsbPortInfo>()>;

    WizardConnectionPage(const QString& lastPort, PortLister lister, QWidget* parent = nullptr);

    void refreshPorts();
    // Opening runs: the page waits and says so.
    void setWaiting(bool waiting);
    // Opening failed: the sentence in red and the page usable again.
    void showFailure(const QString& sentence);

Q_SIGNALS:
    void usbChosen(const QString& port);
    // `host` is already normalised.
    void networkChosen(const QString& host);

private:
    void openChosen();
    void updateMode();

    PortLister m_lister;
    QString m_preferred;
    QRadioButton* m_usb = nullptr;
    QRadioButton* m_network = nullptr;
    QWidget* m_usbBox = nullptr;
    QWidget* m_networkBox = nullptr;
    QListWidget* m_ports = nullptr;
    QLabel* m_count = nullptr;
    QLineEdit* m_address = nullptr;
    QPushButton* m_connect = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
