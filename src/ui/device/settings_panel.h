#pragma once

#include "admin_panel.h"

#include <QJsonObject>

class QPushButton;

namespace vantorelle {

class JsonForm;

// The device's general settings as an editable list (text, numbers and switches), saved
// together. Nested groups are not shown and never sent back.
class SettingsPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit SettingsPanel(DeviceSession* session, QWidget* parent = nullptr);

    void load();
    void save();
    // The values as currently edited, one member per shown setting.
    QJsonObject edited() const;

private:
    void sessionBecameReady() override { load(); }

    JsonForm* m_form = nullptr;
    QPushButton* m_save = nullptr;
};

} // namespace vantorelle
