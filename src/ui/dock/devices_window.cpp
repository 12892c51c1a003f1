#include "devices_window.h"

#include "app.h"
#include "device_manager.h"
#include "manage_dialog.h"
#include "panel_style.h"
#include "setup_wizard.h"
#include "ui_text.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

enum Column
{
    NameColumn,
    IdColumn,
    RoutesColumn,
    ColumnCount
};

QPointer<DevicesWindow> s_window;

QPushButton* namedButton(const char* key, const char* name)
{
    auto* button = new QPushButton(uiText(key));
    button->setObjectName(QLatin1String(name));
    return button;
}

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

QString routeName(int route)
{
    switch (Route(route)) {
    case Route::Cloud:
        return uiText("Route.Cloud");
    case Route::Lan:
        return uiText("Route.Lan");
    case Route::Usb:
        return uiText("Route.Usb");
    case Route::Bluetooth:
        return uiText("Route.Bluetooth");
    }
    return {};
}

DevicesWindow* DevicesWindow::open(App* app, QWidget* parent)
{
    if (!raiseOpen(s_window)) {
        openTracked(s_window, new DevicesWindow(app, parent));
        s_window->refresh();
    }
    return s_window;
}

DevicesWindow::DevicesWindow(App* app, QWidget* parent) : QDialog(parent), m_app(app)
{
    setObjectName(QStringLiteral("devicesWindow"));
    setWindowTitle(uiText("Devices.Title"));
    // A window of its own beside OBS, not a sheet over the dock.
    setWindowFlag(Qt::Window);
    auto* layout = new QVBoxLayout(this);
    auto* explain = wrappedLabel(QStringLiteral("devicesHint"));
    explain->setText(uiText("Devices.Hint"));
    layout->addWidget(explain);

    m_table = new QTreeWidget;
    m_table->setObjectName(QStringLiteral("devicesTable"));
    m_table->setColumnCount(ColumnCount);
    m_table->setHeaderLabels(
        {uiText("Devices.Name"), uiText("Devices.Id"), uiText("Devices.Routes")});
    m_table->setRootIsDecorated(false);
    m_table->setUniformRowHeights(true);
    m_table->header()->setStretchLastSection(true);
    layout->addWidget(m_table);
    m_message = wrappedLabel(QStringLiteral("devicesMessage"));
    layout->addWidget(m_message);

    auto* actions = new QHBoxLayout;
    m_use = namedButton("Devices.Use", "useDevice");
    m_manage = namedButton("Devices.ManageCloud", "manageDevice");
    m_connected = namedButton("Devices.ManageConnected", "manageConnected");
    QPushButton* setUp = namedButton("Devices.SetUp", "setupDevice");
    for (QPushButton* button : {m_use, m_manage, m_connected, setUp})
        actions->addWidget(button);
    actions->addStretch();
    layout->addLayout(actions);
    auto* closeRow = new QDialogButtonBox(QDialogButtonBox::Close);
    m_refresh = namedButton("Devices.Refresh", "refreshDevices");
    closeRow->addButton(m_refresh, QDialogButtonBox::ActionRole);
    layout->addWidget(closeRow);

    connect(closeRow, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(m_refresh, &QPushButton::clicked, this, &DevicesWindow::refresh);
    connect(m_use, &QPushButton::clicked, this, &DevicesWindow::useForLiveData);
    connect(m_table, &QTreeWidget::itemActivated, this, &DevicesWindow::useForLiveData);
    connect(m_manage, &QPushButton::clicked, this, &DevicesWindow::openManageDialog);
    connect(m_connected, &QPushButton::clicked, this, &DevicesWindow::openDeviceManager);
    connect(setUp, &QPushButton::clicked, this, &DevicesWindow::openSetupWizard);
    connect(m_table, &QTreeWidget::currentItemChanged, this, &DevicesWindow::follow);
    connect(m_app, &App::devicesChanged, this, &DevicesWindow::fill);
    connect(m_app->sourceManager(), &SourceManager::statusChanged, this, &DevicesWindow::follow);
    fill();
    resize(560, 360);
}

void DevicesWindow::refresh()
{
    fill();
    if (!m_app->isSignedIn()) {
        showMessage(m_message, uiText("Devices.SignInForAccount"), MessageKind::Plain);
        return;
    }
    m_refresh->setEnabled(false);
    showMessage(m_message, uiText("Devices.Refreshing"), MessageKind::Plain);
    const QPointer<DevicesWindow> alive(this);
    m_app->refreshDevices([alive](bool ok, const QString& error) {
        if (!alive)
            return;
        alive->m_refresh->setEnabled(true);
        showMessage(alive->m_message, ok ? QString() : error,
                    ok ? MessageKind::Plain : MessageKind::Failure);
    });
}

void DevicesWindow::fill()
{
    const QString keep = currentId().isEmpty() ? m_app->settings().selectedDevice() : currentId();
    m_table->clear();
    for (const DeviceEntry& device : m_app->choosableDevices()) {
        QStringList routes;
        for (const Route route : m_app->routesOf(device.id))
            routes << routeName(int(route));
        auto* item = new QTreeWidgetItem(m_table, {device.name.isEmpty() ? device.id : device.name,
                                                   device.id, routes.join(QStringLiteral(", "))});
        item->setData(NameColumn, Qt::UserRole, device.id);
        if (device.id == keep)
            m_table->setCurrentItem(item);
    }
    if (!m_table->currentItem() && m_table->topLevelItemCount() > 0)
        m_table->setCurrentItem(m_table->topLevelItem(0));
    m_table->resizeColumnToContents(NameColumn);
    m_table->resizeColumnToContents(IdColumn);
    if (m_table->topLevelItemCount() == 0)
        showMessage(m_message, uiText("Devices.NoneYet"), MessageKind::Plain);
    follow();
}

// What the buttons can do for the chosen row, and which row live data follows.
void DevicesWindow::follow()
{
    const QString id = currentId();
    const QString followed = m_app->settings().selectedDevice();
    for (int i = 0; i < m_table->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_table->topLevelItem(i);
        QFont font = item->font(NameColumn);
        font.setBold(item->data(NameColumn, Qt::UserRole).toString() == followed);
        item->setFont(NameColumn, font);
    }
    m_use->setEnabled(!id.isEmpty() && id != followed);
    m_manage->setEnabled(m_app->isInAccount(id));
    const bool connected = m_app->sourceManager()->session() != nullptr;
    m_connected->setEnabled(connected);
    m_connected->setToolTip(connected ? uiText("Devices.ManageConnectedHint")
                                             .arg(m_app->sourceManager()->deviceName())
                                      : uiText("Devices.NoneConnected"));
}

QString DevicesWindow::currentId() const
{
    const QTreeWidgetItem* item = m_table->currentItem();
    return item ? item->data(NameColumn, Qt::UserRole).toString() : QString();
}

void DevicesWindow::useForLiveData()
{
    const QString id = currentId();
    if (id.isEmpty())
        return;
    m_app->chooseDevice(id);
    follow();
}

void DevicesWindow::openManageDialog()
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

void DevicesWindow::openDeviceManager()
{
    const SourceManager* sources = m_app->sourceManager();
    if (!sources->session() || raiseOpen(m_deviceManager))
        return;
    openTracked(m_deviceManager,
                new DeviceManager(m_app, sources->session(), sources->deviceName(), this));
}

void DevicesWindow::openSetupWizard()
{
    if (!raiseOpen(m_wizard))
        openTracked(m_wizard, new SetupWizard(m_app, {}, this));
}

} // namespace vantorelle
