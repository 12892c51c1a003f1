#pragma once

#include "admin/device_session.h"

#include <QDialog>

#include <memory>

class QTabWidget;

namespace vantorelle {

class AdvancedPanel;
class ControllerPanel;
class SettingsPanel;
class StatusPanel;
class WifiPanel;

// Everything that can be done to one signed-in device, one tab per concern. The dialog shares
// the session so it stays alive for as long as the panels drive it.
class DeviceManager : public QDialog
{
    Q_OBJECT

public:
    DeviceManager(std::shared_ptr<DeviceSession> session, const QString& name,
                  QWidget* parent = nullptr);
    ~DeviceManager() override;

    DeviceSession* session() const { return m_session.get(); }
    QTabWidget* tabs() const { return m_tabs; }

private:
    std::shared_ptr<DeviceSession> m_session;
    QTabWidget* m_tabs = nullptr;
};

} // namespace vantorelle
