#include "wifi_panel.h"

#include <QFormLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

WifiPanel::WifiPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "wifiPanel", QStringLiteral("Wi-Fi"), parent)
{
    QPushButton* scan = addAction(QStringLiteral("Scan"), "scanWifi");
    body()->addWidget(scan);
    m_networks = new QListWidget;
    m_networks->setObjectName(QStringLiteral("networkList"));
    body()->addWidget(m_networks);

    auto* form = new QFormLayout;
    m_name = new QLineEdit;
    m_name->setObjectName(QStringLiteral("networkName"));
    form->addRow(QStringLiteral("Network"), m_name);
    m_password = new QLineEdit;
    m_password->setObjectName(QStringLiteral("wifiPassword"));
    m_password->setEchoMode(QLineEdit::Password);
    form->addRow(QStringLiteral("Password"), m_password);
    body()->addLayout(form);
    QPushButton* join = addAction(QStringLiteral("Join"), "joinWifi");
    body()->addWidget(join);
    body()->addStretch();

    connect(scan, &QPushButton::clicked, this, &WifiPanel::scan);
    connect(join, &QPushButton::clicked, this, &WifiPanel::join);
    connect(m_password, &QLineEdit::returnPressed, this, &WifiPanel::join);
    connect(m_networks, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* item) {
        if (item)
            m_name->setText(item->data(Qt::UserRole).toString());
    });
}

void WifiPanel::scan()
{
    if (!canStart())
        return;
    begin(QStringLiteral("Looking for networks…"));
    session()->scanWifi(
        guarded([this](const RpcResult& result, const QList<WifiNetwork>& networks) {
            if (settle(result, networks.isEmpty() ? QStringLiteral("The device sees no networks.")
                                                  : QString()))
                showNetworks(networks);
        }));
}

void WifiPanel::showNetworks(const QList<WifiNetwork>& networks)
{
    m_networks->clear();
    for (const WifiNetwork& network : networks) {
        if (network.ssid.isEmpty())
            continue; // a hidden network is joined by typing its name
        auto* item = new QListWidgetItem(
            QStringLiteral("%1 (%2 dBm)").arg(network.ssid).arg(network.rssi), m_networks);
        item->setData(Qt::UserRole, network.ssid);
    }
}

void WifiPanel::join()
{
    if (!canStart())
        return;
    const QString ssid = m_name->text().trimmed();
    if (ssid.isEmpty()) {
        fail(QStringLiteral("Choose a network or type its name."));
        return;
    }
    begin(QStringLiteral("Sending the network to the device…"));
    session()->configureWifi(ssid, m_password->text(),
                             guarded([this, ssid](const RpcResult& result) {
                                 if (!result.ok)
                                     fail(result.message);
                                 else
                                     verify(ssid);
                             }));
}

void WifiPanel::verify(const QString& ssid)
{
    if (!stillConnected())
        return;
    begin(QStringLiteral("Waiting for the device to join %1…").arg(ssid));
    session()->verifyWifi(ssid, guarded([this](const RpcResult& result, const QString& outcome) {
                              settle(result, outcome);
                          }));
}

} // namespace vantorelle
