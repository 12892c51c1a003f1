#include "device_section.h"

#include "app.h"
#include "devices_window.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace vantorelle {

DeviceSection::DeviceSection(App* app, QWidget* parent) : QWidget(parent), m_app(app)
{
    auto* layout = sectionLayout(this, "devicePanel", uiText("Dock.Device"));
    m_devices = new QComboBox;
    m_devices->setObjectName(QStringLiteral("deviceList"));
    m_devices->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    layout->addWidget(m_devices);
    m_routeLabel = new QLabel(uiText("Dock.RouteLabel"));
    layout->addWidget(m_routeLabel);
    m_route = new QComboBox;
    m_route->setObjectName(QStringLiteral("routeChoice"));
    layout->addWidget(m_route);
    m_error = wrappedLabel(QStringLiteral("devicesError"));
    layout->addWidget(m_error);
    auto* devices = new QPushButton(uiText("Dock.Devices"));
    devices->setObjectName(QStringLiteral("openDevices"));
    layout->addWidget(devices);

    connect(devices, &QPushButton::clicked, this, [this] { DevicesWindow::open(m_app, this); });
    connect(m_devices, &QComboBox::activated, this, &DeviceSection::chooseDevice);
    connect(m_route, &QComboBox::activated, this, &DeviceSection::chooseRoute);
    connect(m_app, &App::devicesChanged, this, &DeviceSection::refresh);
    // A sharing-server client or the devices window may choose the device too; the status
    // follows every choice.
    connect(m_app->sourceManager(), &SourceManager::statusChanged, this,
            &DeviceSection::followSelection);
    refresh();
}

void DeviceSection::refresh()
{
    const QSignalBlocker blocker(m_devices);
    m_devices->clear();
    for (const DeviceEntry& device : m_app->choosableDevices())
        m_devices->addItem(deviceLabel(device.name, device.id), device.id);
    showMessage(m_error, m_app->devicesError(), true);
    followSelection();
    showRoutes();
}

void DeviceSection::followSelection()
{
    const QString selected = m_app->settings().selectedDevice();
    if (!selected.isEmpty() && currentId() == selected && m_devices->findData(QString()) < 0)
        return;
    const QSignalBlocker blocker(m_devices);
    int index = selected.isEmpty() ? -1 : m_devices->findData(selected);
    const int placeholder = m_devices->findData(QString());
    if (index < 0 && placeholder < 0) {
        m_devices->insertItem(
            0, m_devices->count() ? uiText("Dock.ChooseDevice") : uiText("Dock.NoDevicesYet"),
            QString());
        index = 0;
    } else if (index < 0) {
        index = placeholder;
    } else if (placeholder >= 0) {
        m_devices->removeItem(placeholder);
        index = m_devices->findData(selected);
    }
    m_devices->setCurrentIndex(index);
    showRoutes();
}

void DeviceSection::showRoutes()
{
    const QString id = currentId();
    const QList<Route> routes = m_app->routesOf(id);
    {
        const QSignalBlocker blocker(m_route);
        m_route->clear();
        for (const Route route : routes)
            m_route->addItem(routeName(int(route)), int(route));
        m_route->setCurrentIndex(qMax(0, m_route->findData(int(m_app->settings().route(id)))));
    }
    m_route->setEnabled(routes.size() > 1);
    m_route->setVisible(!routes.isEmpty());
    m_routeLabel->setVisible(!routes.isEmpty());
}

void DeviceSection::chooseDevice(int index)
{
    const QString id = m_devices->itemData(index).toString();
    if (id.isEmpty())
        return;
    m_app->chooseDevice(id);
    followSelection();
    showRoutes();
}

void DeviceSection::chooseRoute(int index)
{
    m_app->chooseRoute(currentId(), Route(m_route->itemData(index).toInt()));
}

QString DeviceSection::currentId() const
{
    return m_devices->currentData().toString();
}

} // namespace vantorelle
