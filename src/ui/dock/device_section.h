#pragma once

#include <QWidget>

class QComboBox;
class QLabel;

namespace vantorelle {

class App;

// Chooses the live-data device (the account's devices and those set up on this computer) and how
// its data travels, and opens the devices window, the one way to setting up and managing them.
class DeviceSection : public QWidget
{
    Q_OBJECT

public:
    explicit DeviceSection(App* app, QWidget* parent = nullptr);

private:
    void refresh();
    void followSelection();
    void showRoutes();
    void chooseDevice(int index);
    void chooseRoute(int index);
    QString currentId() const;

    App* m_app;
    QComboBox* m_devices = nullptr;
    QLabel* m_routeLabel = nullptr;
    QComboBox* m_route = nullptr;
    QLabel* m_error = nullptr;
};

} // namespace vantorelle
