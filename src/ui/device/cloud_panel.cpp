#include "cloud_panel.h"

#include "app.h"
#include "json_form.h"
#include "panel_style.h"
#include "password_change_form.h"
#include "ui_text.h"

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

CloudPanel::CloudPanel(App* app, DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "cloudPanel", uiText("Device.Cloud.Title"), parent), m_app(app)
{
    body()->addWidget(heading(uiText("Device.Cloud.DeviceId")));
    m_idEdit = new QLineEdit;
    m_idEdit->setObjectName(QStringLiteral("deviceIdEdit"));
    QPushButton* changeId = addAction(uiText("Device.Cloud.ChangeId"), "changeDeviceId");
    body()->addWidget(row(m_idEdit, changeId));

    body()->addWidget(heading(uiText("Device.Cloud.Broker")));
    m_broker = new JsonForm(QStringLiteral("broker_"));
    body()->addWidget(m_broker);
    m_brokerPassword = passwordField("brokerPassword", uiText("Device.Cloud.BrokerPassword"));
    body()->addWidget(m_brokerPassword);
    QPushButton* saveBroker = addAction(uiText("Device.Cloud.SaveBroker"), "saveBroker");
    body()->addWidget(saveBroker, 0, Qt::AlignLeft);
    QPushButton* provision = addAction(uiText("Device.Cloud.Provision"), "provision");
    body()->addWidget(provision, 0, Qt::AlignLeft);

    body()->addWidget(heading(uiText("Device.Cloud.ThisComputer")));
    m_share = new QCheckBox(uiText("Device.Cloud.ShareConnection"));
    m_share->setObjectName(QStringLiteral("shareConnection"));
    m_share->setChecked(m_app->settings().shareConnection());
    body()->addWidget(m_share);

    body()->addWidget(heading(uiText("Device.Cloud.Pairing")));
    m_pairingHint = wrappedLabel(QStringLiteral("pairingHint"));
    body()->addWidget(m_pairingHint);
    m_pairing = new QWidget;
    auto* pairing = new QVBoxLayout(m_pairing);
    pairing->setContentsMargins(0, 0, 0, 0);
    QPushButton* reveal = addAction(uiText("Device.Cloud.RevealPairing"), "revealPairing");
    pairing->addWidget(reveal, 0, Qt::AlignLeft);
    m_adminPassword = passwordField("pairingAdminPassword", uiText("Device.Cloud.AdminPassword"));
    QPushButton* store = addAction(uiText("Device.Cloud.StorePairing"), "storePairing");
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
    m_pairingHint->setText(signedIn ? uiText("Device.Cloud.PairingHint")
                                    : uiText("Device.Cloud.PairingSignIn"));
    m_pairing->setVisible(signedIn);
}

void CloudPanel::load()
{
    if (!canStart())
        return;
    begin(uiText("Device.Cloud.Reading"));
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
        return fail(uiText("Device.Cloud.TypeId"));
    confirmThen(uiText("Device.Cloud.ChangeIdQuestion").arg(id),
                uiText("Device.Cloud.ChangeIdConsequence"), uiText("Device.Cloud.ChangeIdConfirm"),
                [this, id] { setDeviceId(id); });
}

void CloudPanel::setDeviceId(const QString& id)
{
    if (!canStart())
        return;
    ask(
        uiText("Device.Cloud.ChangingId"),
        [id](DeviceSession& session, DeviceSession::Done done) { session.setDeviceId(id, done); },
        [this, id](const RpcResult& result) {
            if (settle(result, uiText("Device.Cloud.IdChanged").arg(id)))
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
        return fail(uiText("Device.Cloud.NoBrokerYet"));
    ask(
        uiText("Device.Cloud.SavingBroker"),
        [broker](DeviceSession& session, DeviceSession::Done done) {
            session.setMqttConfig(broker, done);
        },
        [this](const RpcResult& result) {
            if (settle(result, uiText("Device.Cloud.BrokerSaved")))
                m_brokerPassword->clear();
        });
}

void CloudPanel::provision()
{
    ask(uiText("Device.Cloud.Provisioning"), &DeviceSession::provision,
        [this](const RpcResult& result) { settle(result, uiText("Device.Cloud.Provisioned")); });
}

void CloudPanel::revealPairing()
{
    if (!canStart() || m_deviceId.isEmpty())
        return;
    begin(uiText("Device.Cloud.AskingPairing"));
    m_app->portal().revealPairing(
        m_deviceId, guarded([this](const PortalResult& result) {
            const QString passkey = result.data.value(QLatin1String("ble_passkey")).toString();
            if (!settle(result, passkey.isEmpty() ? uiText("Device.Cloud.NoPairing") : QString()))
                return;
            m_passkey->setText(passkey.isEmpty() ? QString()
                                                 : uiText("Device.PairingPasskey").arg(passkey));
        }));
}

void CloudPanel::storePairing()
{
    if (!canStart() || m_deviceId.isEmpty())
        return;
    begin(uiText("Device.Cloud.StoringPairing"));
    m_app->portal().setPairing(m_deviceId, m_adminPassword->text(),
                               guarded([this](const PortalResult& result) {
                                   settle(result, uiText("Device.Cloud.PairingStored"));
                               }));
}

} // namespace vantorelle
