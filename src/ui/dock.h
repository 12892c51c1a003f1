#pragma once

#include <QWidget>

class QLabel;

namespace vantorelle {

// The "Vantorelle" dock: what the plug-in is doing, at a glance.
class Dock : public QWidget
{
    Q_OBJECT

public:
    explicit Dock(QWidget* parent = nullptr);

private:
    void showServerState();
    void showLiveSource();

    QLabel* m_source = nullptr;
    QLabel* m_server = nullptr;
};

} // namespace vantorelle
