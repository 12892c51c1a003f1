#include "setup_wizard.h"

#include "app.h"
#include "ble_link.h"
#include "controller_panel.h"
#include "http_link.h"
#include "panel_style.h"
#include "wifi_panel.h"
#include "wireless_panel.h"
#include "wizard_cloud_page.h"
#include "wizard_local_feed_page.h"
#include "wizard_sign_in_page.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace vantorelle {

using State = DeviceSession::State;

namespace {

// How the account is told the device was found: at its address on the network, or by hand.
QString foundAs(const DeviceLink* link)
{
    return link && link->kind() == QLatin1String("lan") ? QStringLiteral("lan")
                                                        : QStringLiteral("manual");
}

} // namespace

SetupWizard::SetupWizard(App* app, const SetupWizardSettings& settings, QWidget* parent)
    : QDialog(parent), m_app(app), m_settings(settings)
{
    setObjectName(QStringLiteral("setupWizard"));
    setWindowTitle(tr("Set up a Vantorelle device"));
    auto* layout = new QVBoxLayout(this);
    m_stack = new QStackedWidget;
    layout->addWidget(m_stack);
    m_connection = new WizardConnectionPage(m_app->settings().lastUsbPort(), m_settings.listPorts,
                                            m_settings.bluetooth ? m_settings.bluetooth
                                                                 : &BleHelperBridge::instance());
    m_signIn = new WizardSignInPage;
    m_stack->addWidget(m_connection);
    m_stack->addWidget(m_signIn);

    m_navigation = new QWidget;
    auto* row = new QHBoxLayout(m_navigation);
    row->setContentsMargins(0, 0, 0, 0);
    m_back = new QPushButton(tr("Back"));
    m_back->setObjectName(QStringLiteral("backButton"));
    m_next = new QPushButton(tr("Next"));
    m_next->setObjectName(QStringLiteral("nextButton"));
    row->addWidget(m_back);
    row->addStretch();
    row->addWidget(m_next);
    layout->addWidget(m_navigation);
    m_navigation->hide();

    connect(m_connection, &WizardConnectionPage::usbChosen, this, &SetupWizard::openUsb);
    connect(m_connection, &WizardConnectionPage::networkChosen, this, &SetupWizard::openNetwork);
    connect(m_connection, &WizardConnectionPage::bluetoothChosen, this,
            &SetupWizard::openBluetooth);
    connect(m_signIn, &WizardSignInPage::startOver, this, &SetupWizard::startOver);
    // Closed without finishing: the device is let go, and a reopened wizard starts afresh.
    connect(this, &QDialog::rejected, this, &SetupWizard::startOver);
    connect(m_back, &QPushButton::clicked, this, [this] { goTo(m_step - 1); });
    connect(m_next, &QPushButton::clicked, this, [this] { goTo(m_step + 1); });
}

SetupWizard::~SetupWizard()
{
    dropSession();
}

QWidget* SetupWizard::currentPage() const
{
    return m_stack->currentWidget();
}

void SetupWizard::openUsb(const QString& port)
{
    start(new UsbLink(port, m_settings.usb));
}

void SetupWizard::openNetwork(const QString& host)
{
    auto* link = new HttpLink(host);
    link->setProbeTimeout(m_settings.probeTimeoutMs);
    start(link);
}

void SetupWizard::openBluetooth(const QString& address, const QString& name, const QString& passkey)
{
    start(new BleLink(address, name, passkey, m_settings.bluetooth));
}

// The link lives and dies with its session, which may outlive this wizard in the live data.
void SetupWizard::start(DeviceLink* link)
{
    dropSession();
    m_statusName.clear();
    m_session = std::shared_ptr<DeviceSession>(new DeviceSession(m_settings.session),
                                               [](DeviceSession* s) { s->deleteLater(); });
    link->setParent(m_session.get());
    connect(m_session.get(), &DeviceSession::stateChanged, this, &SetupWizard::followState);
    connect(m_session.get(), &DeviceSession::statusUpdated, this, &SetupWizard::noteStatus);
    m_signIn->follow(m_session.get());
    m_connection->setWaiting(true);
    m_session->start(link);
}

void SetupWizard::dropSession()
{
    if (!m_session)
        return;
    m_session->disconnect(this);
    m_session->close();
    m_session.reset();
}

void SetupWizard::startOver()
{
    clearDevicePages();
    dropSession();
    m_connection->showFailure({});
    m_stack->setCurrentWidget(m_connection);
}

void SetupWizard::followState(State state, const QString& detail)
{
    const bool connecting = m_stack->currentWidget() == m_connection;
    switch (state) {
    case State::Connecting:
        return;
    case State::Ready:
        if (m_steps.isEmpty())
            buildDevicePages();
        return;
    case State::Error:
    case State::Lost:
        if (connecting || state == State::Lost) {
            clearDevicePages();
            m_stack->setCurrentWidget(m_connection);
            return m_connection->showFailure(detail);
        }
        break;
    case State::Restarting:
        clearDevicePages();
        m_stack->setCurrentWidget(m_connection);
        return m_connection->showFailure(
            tr("The device is restarting. Connect again once it is back."));
    default:
        break;
    }
    m_signIn->showState(state, detail);
    m_stack->setCurrentWidget(m_signIn);
}

void SetupWizard::noteStatus(const QJsonObject& status)
{
    m_statusName = status.value("name").toString();
    if (m_statusName.isEmpty())
        m_statusName = status.value("device_id").toString();
}

void SetupWizard::buildDevicePages()
{
    DeviceSession* session = m_session.get();
    if (!session->isReceiverMode()) {
        m_steps << new WifiPanel(session) << new ControllerPanel(session, &m_app->settings());
    }
    m_steps << new WirelessPanel(session);
    if (!session->isReceiverMode()) {
        m_steps << new WizardLocalFeedPage(session, &m_app->settings())
                << new WizardCloudPage(m_app, session, foundAs(session->link()));
    }
    m_steps << buildFinishPage();
    for (QWidget* page : std::as_const(m_steps))
        m_stack->addWidget(page);
    m_connection->showFailure({});
    m_navigation->show();
    goTo(0);
}

QWidget* SetupWizard::buildFinishPage()
{
    auto* page = new QWidget;
    QVBoxLayout* layout = sectionLayout(page, "finishPage", tr("Finish"));
    QLabel* explain = wrappedLabel(QStringLiteral("finishHint"));
    explain->setText(tr("Show the scores from this connection in OBS from now on."));
    layout->addWidget(explain);
    auto* use = new QPushButton(tr("Use this connection for live data"));
    use->setObjectName(QStringLiteral("useForLiveData"));
    layout->addWidget(use, 0, Qt::AlignLeft);
    m_finishMessage = wrappedLabel(QStringLiteral("finishMessage"));
    layout->addWidget(m_finishMessage);
    layout->addStretch();
    showMessage(m_finishMessage, {}, false);
    connect(use, &QPushButton::clicked, this, &SetupWizard::finish);
    return page;
}

void SetupWizard::clearDevicePages()
{
    for (QWidget* page : std::as_const(m_steps)) {
        // Later: the finish button that leads here is on one of them.
        m_stack->removeWidget(page);
        page->deleteLater();
    }
    m_steps.clear();
    m_step = -1;
    m_finishMessage = nullptr;
    m_navigation->hide();
}

void SetupWizard::goTo(int step)
{
    if (step < 0 || step >= m_steps.size())
        return;
    m_step = step;
    m_stack->setCurrentWidget(m_steps.at(step));
    m_back->setEnabled(step > 0);
    m_next->setEnabled(step + 1 < m_steps.size());
}

QString SetupWizard::deviceName() const
{
    if (!m_statusName.isEmpty())
        return m_statusName;
    const QJsonObject info = m_session ? m_session->deviceInfo() : QJsonObject();
    for (const char* key : {"name", "device_id"}) {
        const QString value = info.value(QLatin1String(key)).toString();
        if (!value.isEmpty())
            return value;
    }
    return m_session && m_session->isReceiverMode() ? tr("the wireless receiver")
                                                    : tr("the Vantorelle device");
}

void SetupWizard::finish()
{
    if (!m_session || m_session->state() != State::Ready) {
        if (m_finishMessage)
            showMessage(m_finishMessage, tr("The device is no longer connected."), true);
        return;
    }
    std::shared_ptr<DeviceSession> session = m_session;
    const QString name = deviceName();
    // From here the live data keeps the session; this wizard only lets go of it.
    clearDevicePages();
    m_session->disconnect(this);
    m_session.reset();
    m_app->followSetUpDevice(session, name);
    accept();
}

} // namespace vantorelle
