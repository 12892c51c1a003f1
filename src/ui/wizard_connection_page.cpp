#include "wizard_connection_page.h"

#include "admin/http_admin_transport.h"
#include "panel_style.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

namespace vantorelle {

WizardConnectionPage::WizardConnectionPage(const QString& lastPort, PortLister lister,
                                           QWidget* parent)
    : QWidget(parent),
      m_lister(lister ? std::move(lister) : PortLister([] { return listSerialPorts(); })),
      m_preferred(lastPort)
{
    QVBoxLayout* layout = sectionLayout(this, "connectionPage", tr("Connect to the device"));
    m_usb = new QRadioButton(tr("USB cable"));
    m_usb->setObjectName(QStringLiteral("useUsb"));
    m_network = new QRadioButton(tr("Local network"));
    m_network->setObjectName(QStringLiteral("useNetwork"));
    m_usb->setChecked(true);
    layout->addWidget(m_usb);
    layout->addWidget(m_network);

    m_usbBox = new QWidget;
    auto* usbLayout = new QVBoxLayout(m_usbBox);
    usbLayout->setContentsMargins(0, 0, 0, 0);
    m_count = wrappedLabel(QStringLiteral("portCount"));
    usbLayout->addWidget(m_count);
    QLabel* hint = wrappedLabel(QStringLiteral("portHint"));
    hint->setText(tr("Use the USB port on the device (or on the wireless receiver). Close any "
                     "serial monitor first."));
    usbLayout->addWidget(hint);
    m_ports = new QListWidget;
    m_ports->setObjectName(QStringLiteral("portList"));
    usbLayout->addWidget(m_ports);
    auto* refresh = new QPushButton(tr("Refresh"));
    refresh->setObjectName(QStringLiteral("refreshPorts"));
    usbLayout->addWidget(refresh, 0, Qt::AlignLeft);
    layout->addWidget(m_usbBox);

    m_networkBox = new QWidget;
    auto* networkLayout = new QVBoxLayout(m_networkBox);
    networkLayout->setContentsMargins(0, 0, 0, 0);
    QLabel* explain = wrappedLabel(QStringLiteral("addressHint"));
    explain->setText(tr("Type the device's number (such as 12), its name or its IP address."));
    networkLayout->addWidget(explain);
    m_address = new QLineEdit;
    m_address->setObjectName(QStringLiteral("addressEdit"));
    networkLayout->addWidget(m_address);
    layout->addWidget(m_networkBox);

    m_connect = new QPushButton(tr("Connect"));
    m_connect->setObjectName(QStringLiteral("connectButton"));
    layout->addWidget(m_connect, 0, Qt::AlignLeft);
    m_message = wrappedLabel(QStringLiteral("connectionMessage"));
    layout->addWidget(m_message);
    layout->addStretch();
    showMessage(m_message, {}, false);

    connect(refresh, &QPushButton::clicked, this, &WizardConnectionPage::refreshPorts);
    connect(m_connect, &QPushButton::clicked, this, &WizardConnectionPage::openChosen);
    connect(m_usb, &QRadioButton::toggled, this, &WizardConnectionPage::updateMode);
    connect(m_address, &QLineEdit::returnPressed, this, &WizardConnectionPage::openChosen);
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
        QString text = info.description;
        if (info.likely)
            text += QString::fromUtf8("  – likely a Vantorelle device");
        auto* item = new QListWidgetItem(text, m_ports);
        item->setData(Qt::UserRole, info.port);
        if (info.port == keep)
            m_ports->setCurrentItem(item);
    }
    m_count->setText(tr("%1 USB port(s) found. Pick the Vantorelle device.").arg(ports.size()));
}

void WizardConnectionPage::setWaiting(bool waiting)
{
    m_connect->setEnabled(!waiting);
    if (waiting)
        showMessage(m_message, tr("Connecting…"), false);
}

void WizardConnectionPage::showFailure(const QString& sentence)
{
    m_connect->setEnabled(true);
    showMessage(m_message, sentence, true);
}

void WizardConnectionPage::openChosen()
{
    if (m_usb->isChecked()) {
        QListWidgetItem* item = m_ports->currentItem();
        if (!item)
            return showFailure(tr("Pick a USB port first."));
        return Q_EMIT usbChosen(item->data(Qt::UserRole).toString());
    }
    const QString host = normaliseDeviceAddress(m_address->text());
    if (host.isEmpty())
        return showFailure(tr("That address cannot be used. Type the device's number (such as "
                              "12), its name or its IP address."));
    m_address->setText(host);
    Q_EMIT networkChosen(host);
}

void WizardConnectionPage::updateMode()
{
    m_usbBox->setVisible(m_usb->isChecked());
    m_networkBox->setVisible(!m_usb->isChecked());
    showMessage(m_message, {}, false);
}

} // namespace vantorelle
