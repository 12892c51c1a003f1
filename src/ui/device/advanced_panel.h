#pragma once

#include "admin_panel.h"

namespace vantorelle {

class WirelessPanel;

// Restarts the device, and holds the radio link to a wireless receiver below.
class AdvancedPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit AdvancedPanel(DeviceSession* session, QWidget* parent = nullptr);

    void restartDevice();
    void restartNow();
    WirelessPanel* wirelessPanel() const { return m_wireless; }

private:
    WirelessPanel* m_wireless = nullptr;
};

} // namespace vantorelle
