#pragma once

#include "admin_panel.h"

class QLabel;
class QPushButton;

namespace vantorelle {

// The device's status and its network test, each shown as "key: value" lines.
class StatusPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit StatusPanel(DeviceSession* session, QWidget* parent = nullptr);

    void refresh();
    void runNetworkTest();

private:
    void sessionBecameReady() override { refresh(); }

    QLabel* m_status = nullptr;
    QLabel* m_networkTest = nullptr;
};

} // namespace vantorelle
