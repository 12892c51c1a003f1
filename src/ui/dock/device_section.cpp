#include "device_section.h"

#include "app.h"
#include "device_manager.h"
#include "manage_dialog.h"
#include "panel_style.h"
#include "setup_wizard.h"

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace vantorelle {

DeviceSection::DeviceSection(App* app, QWidget* parent) : QWidget(parent), m_app(app)
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

    connect(m_setup, &QPushButton::clicked, this, &DeviceSection::openSetupWizard);
    connect(m_connected, &QPushButton::clicked, this, &DeviceSection::openDeviceManager);
    const auto showConnected = [this] {
        m_connected->setVisible(m_app->sourceManager()->session() != nullptr);
    };
    connect(m_app->sourceManager(), &SourceManager::statusChanged, this, showConnected);
    showConnected();
    connect(m_devices, &QComboBox::activated, this, &DeviceSection::chooseDevice);
    connect(m_route, &QComboBox::activated, this, &DeviceSection::chooseRoute);
    connect(m_manage, &QPushButton::clicked, this, &DeviceSection::openManageDialog);
    connect(m_app, &App::devicesChanged, this, &DeviceSection::refresh);
    // A sharing-server client may choose the device too; the status follows every choice.
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

void DeviceSection::showRoutes()
{
    const QString id = currentId();
    const QList<Route> routes = m_app->routesOf(id);
    {
        const QSignalBlocker blocker(m_route);
        m_route->clear();
        for (const Route route : routes)
            m_route->addItem(route == Route::Lan ? QStringLiteral("Local network")
                                                 : QStringLiteral("Vantorelle cloud"),
                             int(route));
        m_route->setCurrentIndex(qMax(0, m_route->findData(int(m_app->settings().route(id)))));
    }
    m_route->setEnabled(routes.size() > 1);
    m_route->setVisible(!routes.isEmpty());
    m_routeLabel->setVisible(!routes.isEmpty());
    m_manage->setVisible(m_app->isInAccount(id));
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

namespace {

// Brings an open window to the front; false when there is none.
bool raiseOpen(QWidget* window)
{
    if (!window)
        return false;
    window->show();
    window->raise();
    window->activateWindow();
    return true;
}

// Shows a new window that deletes itself when closed, and keeps track of it.
template <typename Window> void openTracked(QPointer<Window>& tracked, Window* window)
{
    window->setAttribute(Qt::WA_DeleteOnClose);
    tracked = window;
    window->show();
}

} // namespace

void DeviceSection::openManageDialog()
{
    const QString id = currentId();
    if (!m_app->isInAccount(id))
        return;
    if (m_manageDialog && m_manageDialog->deviceId() != id)
        m_manageDialog->close(); // another device's: this one takes its place
    if (!raiseOpen(m_manageDialog))
        openTracked(m_manageDialog,
                    new ManageDialog(id, &m_app->portal(),
                                     controllersFromJson(m_app->settings().controllerList()),
                                     this));
}

void DeviceSection::openDeviceManager()
{
    const SourceManager* sources = m_app->sourceManager();
    if (!sources->session() || raiseOpen(m_deviceManager))
        return;
    openTracked(m_deviceManager,
                new DeviceManager(m_app, sources->session(), sources->deviceName(), this));
}

void DeviceSection::openSetupWizard()
{
    if (!raiseOpen(m_wizard))
        openTracked(m_wizard, new SetupWizard(m_app, {}, this));
}

QString DeviceSection::currentId() const
{
    return m_devices->currentData().toString();
}

} // namespace vantorelle
