#pragma once

#include "admin_panel.h"

class QLineEdit;
class QListWidget;

namespace vantorelle {

// Joins the device to a Wi-Fi network: scan, choose one (or type its name), give the password,
// join, and say whether the device got on.
class WifiPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit WifiPanel(DeviceSession* session, QWidget* parent = nullptr);

    void scan();
    void join();

private:
    void showNetworks(const QList<WifiNetwork>& networks);
    void verify(const QString& ssid);

    QListWidget* m_networks = nullptr;
    QLineEdit* m_name = nullptr;
    QLineEdit* m_password = nullptr;
};

} // namespace vantorelle
