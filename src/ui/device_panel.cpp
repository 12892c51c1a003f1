#include "device_panel.h"

#include "admin/manage_dialog.h"
#include "core/app.h"
#include "panel_style.h"
#include "ui/device_manager.h"
#include "ui/setup_wizard.h"

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include <algorithm>

namespace vantorelle {

DevicePanel::DevicePanel(App* app, QWidget* parent) : QWidget(parent), m_app(app)
{
    auto* layout = sectionLayout(this, "devicePanel", QStringLiteral("Device"));
    m_devices = new QComboBox;
    m_devices->setObjectName(QStringLiteral("deviceList"));
    m_devices->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    layout->addWidget(m_devices);
    m_routeLabel = new QLabel(QStringLiteral("Live data through"));
    layout->addWidget(m_routeLabel);
    m_route = new QComboBox;
    m_route->setObjectName(QStringLiteral("routeChoice"));
    layout->addWidget(m_route);
    m_error = wrappedLabel(QStringLiteral("devicesError"));
    layout->addWidget(m_error);
    m_manage = new QPushButton(QStringLiteral("Manage device…"));
    m_manage->setObjectName(QStringLiteral("manageDevice"));
    layout->addWidget(m_manage);
    m_connected = new QPushButton(QStringLiteral("Manage connected device…"));
    m_connected->setObjectName(QStringLiteral("manageConnected"));
    layout->addWidget(m_connected);
    m_setup = new QPushButton(QStringLiteral("Set up a device…"));
    m_setup->setObjectName(QStringLiteral("setupDevice"));
    layout->addWidget(m_setup);

    connect(m_setup, &QPushButton::clicked, this, &DevicePanel::openSetupWizard);
    connect(m_connected, &QPushButton::clicked, this, &DevicePanel::openDeviceManager);
    const auto showConnected = [this] {
        m_connected->setVisible(m_app->sourceManager()->session() != nullptr);
    };
    connect(m_app->sourceManager(), &SourceManager::statusChanged, this, showConnected);
    showConnected();
    connect(m_devices, &QComboBox::activated, this, &DevicePanel::chooseDevice);
    connect(m_route, &QComboBox::activated, this, &DevicePanel::chooseRoute);
    connect(m_manage, &QPushButton::clicked, this, &DevicePanel::openManageDialog);
    connect(m_app, &App::devicesChanged, this, &DevicePanel::refresh);
    // A sharing-server client may choose the device too; the status follows every choice.
    connect(m_app->sourceManager(), &SourceManager::statusChanged, this,
            &DevicePanel::followSelection);
    refresh();
}

void DevicePanel::refresh()
{
    const QSignalBlocker blocker(m_devices);
    m_devices->clear();
    for (const DeviceEntry& device : m_app->devices())
        m_devices->addItem(deviceLabel(device.name, device.id), device.id);
    // A device on the local network never needs the account, so it is offered signed out too.
    for (const QString& id : m_app->settings().lanDeviceIds()) {
        const LanEntry lan = m_app->settings().lanEntry(id);
        if (lan.usable() && !inAccount(id))
            m_devices->addItem(deviceLabel(lan.name, id), id);
    }
    showMessage(m_error, m_app->devicesError(), true);
    followSelection();
    showRoutes();
}

void DevicePanel::followSelection()
{
    const QString selected = m_app->settings().selectedDevice();
    if (!selected.isEmpty() && currentId() == selected && m_devices->findData(QString()) < 0)
        return;
    const QSignalBlocker blocker(m_devices);
    int index = selected.isEmpty() ? -1 : m_devices->findData(selected);
    const int placeholder = m_devices->findData(QString());
    if (index < 0 && placeholder < 0) {
        m_devices->insertItem(0,
                              m_devices->count() ? QStringLiteral("Choose a device")
                                                 : QStringLiteral("No devices yet"),
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

void DevicePanel::showRoutes()
{
    const QString id = currentId();
    const QStringList routes = routesOf(id);
    {
        const QSignalBlocker blocker(m_route);
        m_route->clear();
        for (const QString& route : routes)
            m_route->addItem(route == QLatin1String(LanRoute) ? QStringLiteral("Local network")
                                                              : QStringLiteral("Vantorelle cloud"),
                             route);
        m_route->setCurrentIndex(qMax(0, m_route->findData(m_app->settings().route(id))));
    }
    m_route->setEnabled(routes.size() > 1);
    m_route->setVisible(!routes.isEmpty());
    m_routeLabel->setVisible(!routes.isEmpty());
    m_manage->setVisible(inAccount(id));
}

void DevicePanel::chooseDevice(int index)
{
    const QString id = m_devices->itemData(index).toString();
    if (id.isEmpty())
        return;
    // A device keeps its route only while it can still take it.
    const QStringList routes = routesOf(id);
    if (!routes.isEmpty() && !routes.contains(m_app->settings().route(id)))
        m_app->settings().setRoute(id, routes.first());
    m_app->selectDevice(id);
    followSelection();
    showRoutes();
}

void DevicePanel::chooseRoute(int index)
{
    const QString id = currentId();
    if (id.isEmpty())
        return;
    m_app->settings().setRoute(id, m_route->itemData(index).toString());
    m_app->selectDevice(id);
}

void DevicePanel::openManageDialog()
{
    const QString id = currentId();
    if (!inAccount(id))
        return;
    auto* dialog = new ManageDialog(id, &m_app->portal(), this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->show();
}

void DevicePanel::openDeviceManager()
{
    const SourceManager* sources = m_app->sourceManager();
    if (!sources->session())
        return;
    auto* manager = new DeviceManager(m_app, sources->session(), sources->deviceName(), this);
    manager->setAttribute(Qt::WA_DeleteOnClose);
    manager->show();
}

void DevicePanel::openSetupWizard()
{
    auto* wizard = new SetupWizard(m_app, {}, this);
    wizard->setAttribute(Qt::WA_DeleteOnClose);
    wizard->show();
}

QString DevicePanel::currentId() const
{
    return m_devices->currentData().toString();
}

bool DevicePanel::inAccount(const QString& id) const
{
    const QList<DeviceEntry>& devices = m_app->devices();
    return !id.isEmpty() && std::any_of(devices.cbegin(), devices.cend(),
                                        [&](const DeviceEntry& d) { return d.id == id; });
}

QStringList DevicePanel::routesOf(const QString& id) const
{
    QStringList routes;
    if (inAccount(id))
        routes << QLatin1String(CloudRoute);
    if (!id.isEmpty() && m_app->settings().lanEntry(id).usable())
        routes << QLatin1String(LanRoute);
    return routes;
}

} // namespace vantorelle
