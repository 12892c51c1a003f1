#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QSpinBox;

namespace vantorelle {

class App;

// The live-data sharing server: on or off, its port and whether other computers may connect.
// Every change is saved and applied at once; the state line shows what the server is doing.
class ServerSection : public QWidget
{
    Q_OBJECT

public:
    explicit ServerSection(App* app, QWidget* parent = nullptr);

private:
    void apply();
    void refresh();

    App* m_app;
    QCheckBox* m_enabled = nullptr;
    QSpinBox* m_port = nullptr;
    QCheckBox* m_allowNetwork = nullptr;
    QLabel* m_state = nullptr;
    QSpinBox* m_browserPort = nullptr;
    QLabel* m_browserState = nullptr;
};

} // namespace vantorelle
