#pragma once

#include "admin_panel.h"

#include <QJsonObject>
#include <QList>

class QFormLayout;
class QPushButton;

namespace vantorelle {

// The device's general settings as an editable list: text in line edits, numbers in spin boxes,
// switches in check boxes. Nested groups are not shown and never sent back.
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
    struct Field
    {
        QString key;
        QWidget* editor = nullptr;
    };

    void sessionBecameReady() override { load(); }
    void showSettings(const QJsonObject& settings);
    void clearFields();

    QFormLayout* m_form = nullptr;
    QPushButton* m_save = nullptr;
    QList<Field> m_fields;
};

} // namespace vantorelle
