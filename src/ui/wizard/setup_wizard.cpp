#include "setup_wizard.h"

#include "app.h"
#include "ble_link.h"
#include "controller_panel.h"
#include "http_link.h"
#include "panel_style.h"
#include "ui_text.h"
#include "wifi_panel.h"
#include "wireless_panel.h"
#include "wizard_cloud_page.h"
#include "wizard_local_feed_page.h"
#include "wizard_sign_in_page.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <utility>

namespace vantorelle {

using State = DeviceSession::State;

namespace {

// How the account is told the device was found: at its address on the network, or by hand.
QString foundAs(const DeviceLink* link)
{
    return link && link->kind() == QLatin1String("lan") ? QStringLiteral("lan")
                                                        : QStringLiteral("manual");
}

// Gives the focus to the field of `page` a user starts with, in tab order: of exclusive choices
// the one chosen, and no field already filled in (such as the current password the wizard
// knows). A page without one takes the focus itself, so that Enter still reaches the default
// button rather than a button the focus fell on.
void focusFirstInput(QWidget* page)
{
    for (QWidget* w = page->nextInFocusChain(); w && w != page; w = w->nextInFocusChain()) {
        if (!page->isAncestorOf(w) || !w->isVisibleTo(page) || !w->isEnabled() ||
            !(w->focusPolicy() & Qt::TabFocus))
            continue;
        if (auto* radio = qobject_cast<QRadioButton*>(w);
            radio && radio->autoExclusive() && !radio->isChecked())
            continue;
        if (auto* edit = qobject_cast<QLineEdit*>(w);
            edit && (edit->isReadOnly() || !edit->text().isEmpty()))
            continue;
        w->setFocus(Qt::OtherFocusReason);
        return;
    }
    page->setFocus(Qt::OtherFocusReason);
}

} // namespace

SetupWizard::SetupWizard(App* app, const SetupWizardSettings& settings, QWidget* parent)
    : QDialog(parent), m_app(app), m_settings(settings)
{
    setObjectName(QStringLiteral("setupWizard"));
    setWindowTitle(uiText("Wizard.WindowTitle"));
    auto* layout = new QVBoxLayout(this);
    m_title = new QLabel;
    m_title->setObjectName(QStringLiteral("stepTitle"));
    m_title->setTextFormat(Qt::PlainText);
    QFont bold = m_title->font();
    bold.setBold(true);
    m_title->setFont(bold);
    layout->addWidget(m_title);
    m_stack = new QStackedWidget;
    layout->addWidget(m_stack, 1);
    m_connection = new WizardConnectionPage(m_app->settings().lastUsbPort(), m_settings.listPorts,
                                            m_settings.bluetooth ? m_settings.bluetooth
                                                                 : &BleHelperBridge::instance());
    m_signIn = new WizardSignInPage;
    m_stack->addWidget(m_connection);
    m_stack->addWidget(m_signIn);

    // One row for every step, in the order Tab visits it. The pages the wizard adds later come
    // after the row in the focus chain, which wraps: Tab still goes from a page to the row.
    auto* row = new QHBoxLayout;
    m_back = new QPushButton(uiText("Wizard.Back"));
    m_back->setObjectName(QStringLiteral("backButton"));
    m_next = new QPushButton(uiText("Wizard.Next"));
    m_next->setObjectName(QStringLiteral("nextButton"));
    m_finish = new QPushButton(uiText("Wizard.Finish"));
    m_finish->setObjectName(QStringLiteral("finishButton"));
    m_cancel = new QPushButton(uiText("Wizard.Cancel"));
    m_cancel->setObjectName(QStringLiteral("cancelButton"));
    row->addStretch();
    for (QPushButton* button : {m_back, m_next, m_finish, m_cancel})
        row->addWidget(button);
    layout->addLayout(row);

    connect(m_connection, &WizardConnectionPage::usbChosen, this, &SetupWizard::openUsb);
    connect(m_connection, &WizardConnectionPage::networkChosen, this, &SetupWizard::openNetwork);
    connect(m_connection, &WizardConnectionPage::bluetoothChosen, this,
            &SetupWizard::openBluetooth);
    // Closed without finishing: the device is let go, and a reopened wizard starts afresh.
    connect(this, &QDialog::rejected, this, &SetupWizard::startOver);
    connect(m_back, &QPushButton::clicked, this, &SetupWizard::back);
    connect(m_next, &QPushButton::clicked, this, &SetupWizard::next);
    connect(m_finish, &QPushButton::clicked, this, &SetupWizard::finish);
    connect(m_cancel, &QPushButton::clicked, this, &SetupWizard::cancel);
    showPage(m_connection);
}

SetupWizard::~SetupWizard()
{
    dropSession();
}

QWidget* SetupWizard::currentPage() const
{
    return m_stack->currentWidget();
}

void SetupWizard::keyPressEvent(QKeyEvent* event)
{
    // Escape is Cancel, which first stops a connection attempt; Enter stays with the dialog,
    // which presses the default button (Next, or Finish on the last page).
    if (event->matches(QKeySequence::Cancel)) {
        event->accept();
        return cancel();
    }
    QDialog::keyPressEvent(event);
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
    m_signInShown = false;
    m_session = std::shared_ptr<DeviceSession>(new DeviceSession(m_settings.session),
                                               [](DeviceSession* s) { s->deleteLater(); });
    link->setParent(m_session.get());
    connect(m_session.get(), &DeviceSession::stateChanged, this, &SetupWizard::followState);
    connect(m_session.get(), &DeviceSession::statusUpdated, this, &SetupWizard::noteStatus);
    m_signIn->follow(m_session.get());
    m_connecting = true;
    m_connection->showWaiting();
    updateButtons();
    m_session->start(link); // may fail at once, and followState hears of it
}

void SetupWizard::dropSession()
{
    if (!m_session)
        return;
    m_session->disconnect(this);
    m_session->close();
    m_session.reset();
}

// Closing the session aborts what the link still waits for (a network device's first answer
// may take probeTimeoutMs), so the next attempt starts from nothing.
void SetupWizard::stopConnecting()
{
    dropSession();
    m_connecting = false;
    m_connection->showNote(uiText("Wizard.ConnectStopped"));
    showPage(m_connection);
}

void SetupWizard::startOver()
{
    clearDevicePages();
    dropSession();
    m_connecting = false;
    m_connection->showFailure({});
    showPage(m_connection);
}

void SetupWizard::backToConnection(const QString& failure)
{
    clearDevicePages();
    m_connecting = false;
    m_connection->showFailure(failure);
    showPage(m_connection);
}

void SetupWizard::cancel()
{
    if (m_connecting)
        return stopConnecting();
    reject();
}

void SetupWizard::followState(State state, const QString& detail)
{
    switch (state) {
    case State::Connecting:
        return;
    case State::SigningIn:
        // The stored password is tried first, silently: for the user that is still connecting.
        if (m_connecting)
            return;
        break;
    case State::Ready:
        m_connecting = false;
        if (m_steps.isEmpty())
            buildDevicePages();
        else
            goTo(qMax(m_step, 0)); // signed in again after the device asked
        return;
    case State::Error:
    case State::Lost:
        if (m_connecting || state == State::Lost)
            return backToConnection(detail);
        break;
    case State::Restarting:
        return backToConnection(uiText("Wizard.DeviceRestarting"));
    default:
        break;
    }
    m_connecting = false;
    if (m_steps.isEmpty()) // once the pages exist, their count stays
        m_signInShown = true;
    m_signIn->showState(state, detail);
    showPage(m_signIn);
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
    const bool receiver = session->isReceiverMode();
    if (!receiver) {
        m_steps << Step{new WifiPanel(session), uiText("Wizard.StepWifi")}
                << Step{new ControllerPanel(session, &m_app->settings()),
                        uiText("Wizard.StepController")};
    }
    m_steps << Step{new WirelessPanel(session), uiText("Wizard.StepWireless")};
    if (!receiver) {
        m_steps << Step{new WizardLocalFeedPage(session, &m_app->settings()),
                        uiText("Wizard.StepLocalFeed")}
                << Step{new WizardCloudPage(m_app, session, foundAs(session->link())),
                        uiText("Wizard.StepCloud")};
    }
    m_steps << Step{buildFinishPage(), uiText("Wizard.StepFinish")};
    for (const Step& step : std::as_const(m_steps))
        m_stack->addWidget(step.page);
    m_connection->showFailure({});
    goTo(0);
}

// What Finish will do, in words; failures to do it show below.
QWidget* SetupWizard::buildFinishPage()
{
    auto* page = new QWidget;
    QVBoxLayout* layout = sectionLayout(page, "finishPage", uiText("Wizard.FinishTitle"));
    m_summary = wrappedLabel(QStringLiteral("finishSummary"));
    m_summary->setTextFormat(Qt::PlainText); // holds the device's own name
    layout->addWidget(m_summary);
    m_finishMessage = wrappedLabel(QStringLiteral("finishMessage"));
    layout->addWidget(m_finishMessage);
    layout->addStretch();
    showMessage(m_finishMessage, {}, MessageKind::Plain);
    return page;
}

void SetupWizard::clearDevicePages()
{
    for (const Step& step : std::as_const(m_steps)) {
        // Later: the button that leads here may be on one of them.
        m_stack->removeWidget(step.page);
        step.page->deleteLater();
    }
    m_steps.clear();
    m_step = -1;
    m_summary = nullptr;
    m_finishMessage = nullptr;
}

void SetupWizard::next()
{
    QWidget* page = currentPage();
    if (page == m_connection) {
        if (!m_connecting)
            m_connection->connectChosen();
    } else if (page == m_signIn) {
        m_signIn->submit();
    } else {
        goTo(m_step + 1);
    }
}

// Back from the password goes back to choosing the connection; once signed in, the device's
// pages lead back only to each other.
void SetupWizard::back()
{
    if (currentPage() == m_signIn)
        return startOver();
    goTo(m_step - 1);
}

void SetupWizard::goTo(int step)
{
    if (step < 0 || step >= m_steps.size())
        return;
    m_step = step;
    if (step == m_steps.size() - 1)
        m_summary->setText(finishSummary());
    showPage(m_steps.at(step).page);
}

void SetupWizard::showPage(QWidget* page)
{
    const bool moved = currentPage() != page;
    m_stack->setCurrentWidget(page);
    updateTitle();
    updateButtons();
    // The sign-in page hides its forms while the device checks a password: the focus goes
    // back to the form that shows next.
    if (moved || page == m_signIn)
        focusFirstInput(page);
}

// Until the device is signed in the number of steps is not known: the password step shows only
// when the device asks, and a wireless receiver has fewer pages. So the first steps are named
// without a total ("Step 1: Connect"), never with one that may turn out wrong; once the pages
// exist, every title counts them ("Step 3 of 8: Wi-Fi").
void SetupWizard::updateTitle()
{
    QWidget* page = currentPage();
    if (page == m_connection || page == m_signIn || m_step < 0) {
        const bool first = page == m_connection;
        m_title->setText(
            uiText("Wizard.StepUncounted")
                .arg(QString::number(first ? 1 : 2),
                     first ? uiText("Wizard.StepConnect") : uiText("Wizard.StepSignIn")));
        return;
    }
    const int before = m_signInShown ? 2 : 1; // Connect, and Sign in when it was shown
    m_title->setText(uiText("Wizard.StepCounted")
                         .arg(QString::number(before + m_step + 1),
                              QString::number(before + m_steps.size()), m_steps.at(m_step).title));
}

void SetupWizard::updateButtons()
{
    QWidget* page = currentPage();
    const bool onDevicePage = m_step >= 0 && page == m_steps.at(m_step).page;
    const bool last = onDevicePage && m_step == m_steps.size() - 1;
    const bool back = page == m_signIn || (onDevicePage && m_step > 0);
    const bool next = page == m_connection ? !m_connecting
                      : page == m_signIn   ? m_signIn->canSubmit()
                                           : onDevicePage && !last;
    // A button that goes out of use hands the focus to the page, not to the next button of the
    // row, where a later Enter would press Cancel.
    QWidget* focused = focusWidget();
    const std::pair<QPushButton*, bool> states[] = {
        {m_back, back}, {m_next, next}, {m_finish, last}};
    for (const auto& [button, enabled] : states) {
        if (!enabled && button == focused)
            focusFirstInput(page);
        button->setEnabled(enabled);
    }
    (last ? m_next : m_finish)->setDefault(false);
    (last ? m_finish : m_next)->setDefault(true);
}

QString SetupWizard::finishSummary() const
{
    const QString name = deviceName();
    const QString kind = m_session && m_session->link() ? m_session->link()->kind() : QString();
    if (kind == QLatin1String("lan"))
        return uiText("Wizard.FinishOverNetwork").arg(name);
    if (kind == QLatin1String("ble"))
        return uiText("Wizard.FinishOverBluetooth").arg(name);
    return uiText("Wizard.FinishOverUsb").arg(name);
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
    return m_session && m_session->isReceiverMode() ? uiText("Wizard.TheReceiver")
                                                    : uiText("Wizard.TheDevice");
}

void SetupWizard::finish()
{
    if (!m_session || m_session->state() != State::Ready) {
        if (m_finishMessage)
            showMessage(m_finishMessage, uiText("Wizard.NoLongerConnected"), MessageKind::Failure);
        return;
    }
    std::shared_ptr<DeviceSession> session = m_session;
    const QString name = deviceName();
    // From here the live data keeps the session; this wizard only lets go of it.
    clearDevicePages();
    m_session->disconnect(this);
    m_session.reset();
    showPage(m_connection); // a reopened wizard starts afresh
    m_app->followSetUpDevice(session, name);
    accept();
}

} // namespace vantorelle
