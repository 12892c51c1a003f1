#pragma once

#include <QWidget>

class QLabel;

namespace vantorelle {

class App;

// One line per USB device that reaches the cloud through this computer; hidden when none does.
class RelaySection : public QWidget
{
    Q_OBJECT

public:
    explicit RelaySection(App* app, QWidget* parent = nullptr);

private:
    void refresh();

    App* m_app;
    QLabel* m_lines = nullptr;
};

} // namespace vantorelle
