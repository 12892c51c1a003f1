#pragma once

#include "admin_panel.h"

#include <QJsonObject>

class QPushButton;

namespace vantorelle {

class JsonForm;

// The device's general settings as an editable list: the settings this program knows under their
// own names with the input their meaning asks for, any other by its kind (text, numbers and
// switches). A save sends only what the user changed, so it never undoes what another tool
// changed on the device meanwhile. Nested groups are not shown and never sent back.
class SettingsPanel : public AdminPanel
{
    Q_OBJECT

public:
    explicit SettingsPanel(DeviceSession* session, QWidget* parent = nullptr);

    void load();
    void save();
    // The settings changed since they were read or last saved.
    QJsonObject changes() const;

private:
    void sessionBecameReady() override { load(); }

    JsonForm* m_form = nullptr;
    QPushButton* m_save = nullptr;
};

} // namespace vantorelle
