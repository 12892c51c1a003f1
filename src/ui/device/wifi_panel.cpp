#include "wifi_panel.h"

#include "ui_text.h"

#include <QFormLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

WifiPanel::WifiPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "wifiPanel", uiText("Device.Wifi.Title"), parent)
{
    QPushButton* scan = addAction(uiText("Device.Wifi.Scan"), "scanWifi");
    body()->addWidget(scan);
    m_networks = new QListWidget;
    m_networks->setObjectName(QStringLiteral("networkList"));
    body()->addWidget(m_networks);

    auto* form = new QFormLayout;
    m_name = new QLineEdit;
    m_name->setObjectName(QStringLiteral("networkName"));
    form->addRow(uiText("Device.Wifi.Network"), m_name);
    m_password = new QLineEdit;
    m_password->setObjectName(QStringLiteral("wifiPassword"));
    m_password->setEchoMode(QLineEdit::Password);
    form->addRow(uiText("Device.Wifi.Password"), m_password);
    body()->addLayout(form);
    QPushButton* join = addAction(uiText("Device.Wifi.Join"), "joinWifi");
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
    begin(uiText("Device.Wifi.Scanning"));
    session()->scanWifi(
        guarded([this](const RpcResult& result, const QList<WifiNetwork>& networks) {
            if (settle(result, networks.isEmpty() ? uiText("Device.Wifi.NoNetworks") : QString()))
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
            uiText("Device.Wifi.NetworkEntry").arg(network.ssid).arg(network.rssi), m_networks);
        item->setData(Qt::UserRole, network.ssid);
    }
}

void WifiPanel::join()
{
    if (!canStart())
        return;
    const QString ssid = m_name->text().trimmed();
    if (ssid.isEmpty()) {
        fail(uiText("Device.Wifi.ChooseNetwork"));
        return;
    }
    begin(uiText("Device.Wifi.Sending"));
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
    begin(uiText("Device.Wifi.Waiting").arg(ssid));
    session()->verifyWifi(ssid, guarded([this](const RpcResult& result, const QString& outcome) {
                              settle(result, outcome);
                          }));
}

} // namespace vantorelle
