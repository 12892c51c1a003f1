#include "cloud_panel.h"

#include "app.h"
#include "json_form.h"
#include "panel_style.h"
#include "password_change_form.h"

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

CloudPanel::CloudPanel(App* app, DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "cloudPanel", QStringLiteral("Cloud"), parent), m_app(app)
{
    body()->addWidget(heading(QStringLiteral("Device id")));
    m_idEdit = new QLineEdit;
    m_idEdit->setObjectName(QStringLiteral("deviceIdEdit"));
    QPushButton* changeId = addAction(QStringLiteral("Change"), "changeDeviceId");
    body()->addWidget(row(m_idEdit, changeId));

    body()->addWidget(heading(QStringLiteral("Message broker")));
    m_broker = new JsonForm(QStringLiteral("broker_"));
    body()->addWidget(m_broker);
    m_brokerPassword = passwordField("brokerPassword", QStringLiteral("Password (unchanged when "
                                                                      "empty)"));
    body()->addWidget(m_brokerPassword);
    QPushButton* saveBroker = addAction(QStringLiteral("Save broker settings"), "saveBroker");
    body()->addWidget(saveBroker, 0, Qt::AlignLeft);
    QPushButton* provision = addAction(QStringLiteral("Fetch cloud credentials"), "provision");
    body()->addWidget(provision, 0, Qt::AlignLeft);

    body()->addWidget(heading(QStringLiteral("This computer")));
    m_share = new QCheckBox(QStringLiteral("Let USB devices reach the cloud through this "
                                           "computer's internet connection"));
    m_share->setObjectName(QStringLiteral("shareConnection"));
    m_share->setChecked(m_app->settings().shareConnection());
    body()->addWidget(m_share);

    body()->addWidget(heading(QStringLiteral("Bluetooth pairing in your account")));
    m_pairingHint = wrappedLabel(QStringLiteral("pairingHint"));
    body()->addWidget(m_pairingHint);
    m_pairing = new QWidget;
    auto* pairing = new QVBoxLayout(m_pairing);
    pairing->setContentsMargins(0, 0, 0, 0);
    QPushButton* reveal = addAction(QStringLiteral("Show pairing passkey"), "revealPairing");
    pairing->addWidget(reveal, 0, Qt::AlignLeft);
    m_adminPassword =
        passwordField("pairingAdminPassword", QStringLiteral("Device admin password"));
    QPushButton* store = addAction(QStringLiteral("Keep pairing in account"), "storePairing");
    pairing->addWidget(row(m_adminPassword, store));
    body()->addWidget(m_pairing);
    m_passkey = addAnswerLabel(QStringLiteral("pairingPasskey"));
    body()->addStretch();

    connect(changeId, &QPushButton::clicked, this, &CloudPanel::changeDeviceId);
    connect(saveBroker, &QPushButton::clicked, this, &CloudPanel::saveBroker);
    connect(provision, &QPushButton::clicked, this, &CloudPanel::provision);
    connect(m_share, &QCheckBox::toggled, m_app, &App::setShareConnection);
    connect(reveal, &QPushButton::clicked, this, &CloudPanel::revealPairing);
    connect(store, &QPushButton::clicked, this, &CloudPanel::storePairing);
    connect(&m_app->portal(), &PortalClient::signedInChanged, this, &CloudPanel::followSignIn);
    followSignIn();
}

void CloudPanel::followSignIn()
{
    const bool signedIn = m_app->isSignedIn();
    m_pairingHint->setText(signedIn ? QStringLiteral("Your account keeps the device's Bluetooth "
                                                     "pairing, for phones and tablets that "
                                                     "connect to it.")
                                    : QStringLiteral("Sign in to your account in the dock to see "
                                                     "or keep the device's Bluetooth pairing."));
    m_pairing->setVisible(signedIn);
}

void CloudPanel::load()
{
    if (!canStart())
        return;
    begin(QStringLiteral("Reading the cloud settings…"));
    if (m_adminPassword->text().isEmpty())
        m_adminPassword->setText(session()->password());
    session()->getDeviceId(guarded([this](const RpcResult& result, const QString& id) {
        if (!result.ok)
            return fail(result.message);
        m_deviceId = id;
        m_idEdit->setText(id);
        loadBroker();
    }));
}

void CloudPanel::loadBroker()
{
    if (!stillConnected())
        return;
    session()->getMqttConfig(guarded([this](const RpcResult& result) {
        if (settle(result))
            m_broker->setValues(result.result);
    }));
}

void CloudPanel::changeDeviceId()
{
    const QString id = m_idEdit->text().trimmed();
    if (id == m_deviceId || !canStart())
        return;
    if (id.isEmpty())
        return fail(QStringLiteral("Type the device's new id."));
    confirmThen(QStringLiteral("Change the device id to %1?").arg(id),
                QStringLiteral("Graphics and live data that follow the old id stop until they "
                               "are set to the new one."),
                QStringLiteral("Change"), [this, id] { setDeviceId(id); });
}

void CloudPanel::setDeviceId(const QString& id)
{
    if (!canStart())
        return;
    ask(
        QStringLiteral("Changing the device id…"),
        [id](DeviceSession& session, DeviceSession::Done done) { session.setDeviceId(id, done); },
        [this, id](const RpcResult& result) {
            if (settle(result, QStringLiteral("The device id is now %1.").arg(id)))
                m_deviceId = id;
        });
}

void CloudPanel::saveBroker()
{
    if (!canStart())
        return;
    QJsonObject broker = m_broker->values();
    if (!m_brokerPassword->text().isEmpty())
        broker.insert(QLatin1String("password"), m_brokerPassword->text());
    if (broker.isEmpty())
        return fail(QStringLiteral("The device has not shown its broker settings yet."));
    ask(
        QStringLiteral("Saving the broker settings…"),
        [broker](DeviceSession& session, DeviceSession::Done done) {
            session.setMqttConfig(broker, done);
        },
        [this](const RpcResult& result) {
            if (settle(result, QStringLiteral("The device took the broker settings.")))
                m_brokerPassword->clear();
        });
}

void CloudPanel::provision()
{
    ask(QStringLiteral("The device is fetching its cloud credentials…"), &DeviceSession::provision,
        [this](const RpcResult& result) {
            settle(result, QStringLiteral("The device has its cloud credentials."));
        });
}

void CloudPanel::revealPairing()
{
    if (!canStart() || m_deviceId.isEmpty())
        return;
    begin(QStringLiteral("Asking your account for the pairing…"));
    m_app->portal().revealPairing(
        m_deviceId, guarded([this](const PortalResult& result) {
            const QString passkey = result.data.value(QLatin1String("ble_passkey")).toString();
            if (!settle(result, passkey.isEmpty() ? QStringLiteral("Your account keeps no "
                                                                   "pairing for this device.")
                                                  : QString()))
                return;
            m_passkey->setText(
                passkey.isEmpty() ? QString() : QStringLiteral("Pairing passkey: %1").arg(passkey));
        }));
}

void CloudPanel::storePairing()
{
    if (!canStart() || m_deviceId.isEmpty())
        return;
    begin(QStringLiteral("Handing the pairing to your account…"));
    m_app->portal().setPairing(m_deviceId, m_adminPassword->text(),
                               guarded([this](const PortalResult& result) {
                                   settle(result, QStringLiteral("Your account now keeps "
                                                                 "the device's pairing."));
                               }));
}

} // namespace vantorelle
