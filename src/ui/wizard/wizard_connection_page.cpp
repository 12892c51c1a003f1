#include "wizard_connection_page.h"

#include "http_admin_transport.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

namespace vantorelle {

WizardConnectionPage::WizardConnectionPage(const QString& lastPort, PortLister lister,
                                           BleHelperBridge* bluetooth, QWidget* parent)
    : QWidget(parent),
      m_lister(lister ? std::move(lister) : PortLister([] { return listSerialPorts(); })),
      m_preferred(lastPort), m_bridge(bluetooth && bluetooth->isAvailable() ? bluetooth : nullptr)
{
    QVBoxLayout* layout = sectionLayout(this, "connectionPage", uiText("Wizard.ConnectTitle"));
    m_usb = new QRadioButton(uiText("Wizard.UseUsb"));
    m_usb->setObjectName(QStringLiteral("useUsb"));
    m_network = new QRadioButton(uiText("Wizard.UseNetwork"));
    m_network->setObjectName(QStringLiteral("useNetwork"));
    m_usb->setChecked(true);
    layout->addWidget(m_usb);
    layout->addWidget(m_network);
    if (m_bridge) {
        m_bluetooth = new QRadioButton(uiText("Wizard.UseBluetooth"));
        m_bluetooth->setObjectName(QStringLiteral("useBluetooth"));
        layout->addWidget(m_bluetooth);
    }

    m_usbBox = new QWidget;
    auto* usbLayout = new QVBoxLayout(m_usbBox);
    usbLayout->setContentsMargins(0, 0, 0, 0);
    m_count = wrappedLabel(QStringLiteral("portCount"));
    usbLayout->addWidget(m_count);
    QLabel* hint = wrappedLabel(QStringLiteral("portHint"));
    hint->setText(uiText("Wizard.PortHint"));
    usbLayout->addWidget(hint);
    m_ports = new QListWidget;
    m_ports->setObjectName(QStringLiteral("portList"));
    usbLayout->addWidget(m_ports);
    auto* refresh = new QPushButton(uiText("Wizard.RefreshPorts"));
    refresh->setObjectName(QStringLiteral("refreshPorts"));
    usbLayout->addWidget(refresh, 0, Qt::AlignLeft);
    layout->addWidget(m_usbBox);

    m_networkBox = new QWidget;
    auto* networkLayout = new QVBoxLayout(m_networkBox);
    networkLayout->setContentsMargins(0, 0, 0, 0);
    QLabel* explain = wrappedLabel(QStringLiteral("addressHint"));
    explain->setText(uiText("Wizard.AddressHint"));
    networkLayout->addWidget(explain);
    m_address = new QLineEdit;
    m_address->setObjectName(QStringLiteral("addressEdit"));
    networkLayout->addWidget(m_address);
    layout->addWidget(m_networkBox);
    if (m_bridge) {
        m_bluetoothBox = buildBluetoothBox();
        layout->addWidget(m_bluetoothBox);
        connect(m_bluetooth, &QRadioButton::toggled, this, &WizardConnectionPage::updateMode);
    }

    m_message = wrappedLabel(QStringLiteral("connectionMessage"));
    layout->addWidget(m_message);
    layout->addStretch();
    showMessage(m_message, {}, false);

    connect(refresh, &QPushButton::clicked, this, &WizardConnectionPage::refreshPorts);
    connect(m_usb, &QRadioButton::toggled, this, &WizardConnectionPage::updateMode);
    connect(m_network, &QRadioButton::toggled, this, &WizardConnectionPage::updateMode);
    refreshPorts();
    updateMode();
}

void WizardConnectionPage::refreshPorts()
{
    QListWidgetItem* current = m_ports->currentItem();
    const QString keep = current ? current->data(Qt::UserRole).toString() : m_preferred;
    m_ports->clear();
    const QList<UsbPortInfo> ports = m_lister();
    for (const UsbPortInfo& info : ports) {
        const QString text =
            info.likely ? uiText("Wizard.LikelyDevice").arg(info.description) : info.description;
        auto* item = new QListWidgetItem(text, m_ports);
        item->setData(Qt::UserRole, info.port);
        if (info.port == keep)
            m_ports->setCurrentItem(item);
    }
    m_count->setText((ports.size() == 1 ? uiText("Wizard.PortsOne") : uiText("Wizard.PortsMany"))
                         .arg(ports.size()));
}

QWidget* WizardConnectionPage::buildBluetoothBox()
{
    auto* box = new QWidget;
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    m_bleCount = wrappedLabel(QStringLiteral("bluetoothCount"));
    m_bleCount->setText(uiText("Wizard.BluetoothHint"));
    layout->addWidget(m_bleCount);
    m_bleDevices = new QListWidget;
    m_bleDevices->setObjectName(QStringLiteral("bluetoothList"));
    layout->addWidget(m_bleDevices);
    m_scan = new QPushButton(uiText("Wizard.ScanBluetooth"));
    m_scan->setObjectName(QStringLiteral("scanBluetooth"));
    layout->addWidget(m_scan, 0, Qt::AlignLeft);
    m_passkey = new QLineEdit;
    m_passkey->setObjectName(QStringLiteral("blePasskeyEdit"));
    m_passkey->setPlaceholderText(uiText("Wizard.PasskeyPlaceholder"));
    layout->addWidget(m_passkey);
    connect(m_scan, &QPushButton::clicked, this, &WizardConnectionPage::scanBluetooth);
    return box;
}

void WizardConnectionPage::scanBluetooth()
{
    if (!m_bridge)
        return;
    m_scan->setEnabled(false);
    showMessage(m_message, uiText("Wizard.ScanningBluetooth"), false);
    m_bridge->scan([self = QPointer<WizardConnectionPage>(this)](const RpcResult& result,
                                                                 const QList<BleDevice>& devices) {
        if (!self)
            return;
        self->m_scan->setEnabled(true);
        showMessage(self->m_message, result.ok ? QString() : result.message, !result.ok);
        if (result.ok)
            self->showBluetoothDevices(devices);
    });
}

void WizardConnectionPage::showBluetoothDevices(const QList<BleDevice>& devices)
{
    m_bleDevices->clear();
    for (const BleDevice& device : devices) {
        auto* item =
            new QListWidgetItem(uiText("Wizard.BluetoothEntry")
                                    .arg(device.name, device.address, QString::number(device.rssi)),
                                m_bleDevices);
        item->setData(Qt::UserRole, device.address);
        item->setData(Qt::UserRole + 1, device.name);
    }
    if (!devices.isEmpty())
        m_bleDevices->setCurrentRow(0); // the strongest signal comes first
    m_bleCount->setText(
        (devices.size() == 1 ? uiText("Wizard.BluetoothOne") : uiText("Wizard.BluetoothMany"))
            .arg(devices.size()));
}

void WizardConnectionPage::showWaiting()
{
    showMessage(m_message, uiText("Wizard.Connecting"), MessageKind::Plain);
}

void WizardConnectionPage::showFailure(const QString& sentence)
{
    showMessage(m_message, sentence, MessageKind::Failure);
}

void WizardConnectionPage::showNote(const QString& sentence)
{
    showMessage(m_message, sentence, MessageKind::Plain);
}

void WizardConnectionPage::connectChosen()
{
    if (m_bluetooth && m_bluetooth->isChecked()) {
        QListWidgetItem* item = m_bleDevices->currentItem();
        if (!item)
            return showFailure(uiText("Wizard.PickBluetooth"));
        return Q_EMIT bluetoothChosen(item->data(Qt::UserRole).toString(),
                                      item->data(Qt::UserRole + 1).toString(),
                                      m_passkey->text().trimmed());
    }
    if (m_usb->isChecked()) {
        QListWidgetItem* item = m_ports->currentItem();
        if (!item)
            return showFailure(uiText("Wizard.PickPort"));
        return Q_EMIT usbChosen(item->data(Qt::UserRole).toString());
    }
    const QString host = normaliseDeviceAddress(m_address->text());
    if (host.isEmpty())
        return showFailure(uiText("Wizard.BadAddress"));
    m_address->setText(host);
    Q_EMIT networkChosen(host);
}

void WizardConnectionPage::updateMode()
{
    m_usbBox->setVisible(m_usb->isChecked());
    m_networkBox->setVisible(m_network->isChecked());
    if (m_bluetoothBox)
        m_bluetoothBox->setVisible(m_bluetooth->isChecked());
    showMessage(m_message, {}, false);
}

} // namespace vantorelle
