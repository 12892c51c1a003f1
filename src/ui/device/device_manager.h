#pragma once

#include "device_session.h"

#include <QDialog>

#include <memory>

class QLabel;
class QTabWidget;

namespace vantorelle {

class App;

// Everything that can be done to one signed-in device, one tab per concern; a wireless
// receiver gets its own settings only. The dialog shares the session so it stays alive for as
// long as the panels drive it.
class DeviceManager : public QDialog
{
    Q_OBJECT

public:
    DeviceManager(App* app, std::shared_ptr<DeviceSession> session, const QString& name,
                  QWidget* parent = nullptr);
    ~DeviceManager() override;

    DeviceSession* session() const { return m_session.get(); }
    QTabWidget* tabs() const { return m_tabs; }

private:
    void followState(DeviceSession::State state, const QString& detail);

    std::shared_ptr<DeviceSession> m_session;
    QLabel* m_state = nullptr;
    QTabWidget* m_tabs = nullptr;
};

} // namespace vantorelle
