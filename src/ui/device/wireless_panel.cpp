#include "wireless_panel.h"

#include "answer_lines.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QSpinBox>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

constexpr int MaxChannel = 13; // the Wi-Fi channels a receiver listens on

QString describe(const WirelessLink& link)
{
    QString text;
    if (link.role == QLatin1String("tx"))
        text = link.key_set ? uiText("Device.Wireless.SendingWithKey").arg(link.peer_mac)
                            : uiText("Device.Wireless.Sending").arg(link.peer_mac);
    else if (link.role == QLatin1String("off") || link.role.isEmpty())
        text = uiText("Device.Wireless.Off");
    else
        text = uiText("Device.Wireless.OtherRole").arg(link.role);
    if (!link.start_error.isEmpty())
        text += QLatin1Char(' ') + uiText("Device.Wireless.StartError").arg(link.start_error);
    return text;
}

} // namespace

WirelessPanel::WirelessPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "wirelessPanel", uiText("Device.Wireless.Title"), parent)
{
    m_forReceiver = session && session->isReceiverMode();
    if (m_forReceiver) {
        buildReceiver();
    } else {
        buildDevice();
    }
    body()->addStretch();
}

void WirelessPanel::buildReceiver()
{
    auto* form = new QFormLayout;
    m_key = new QLineEdit;
    m_key->setObjectName(QStringLiteral("receiverKey"));
    form->addRow(uiText("Device.Wireless.Key"), m_key);
    m_channel = new QSpinBox;
    m_channel->setObjectName(QStringLiteral("receiverChannel"));
    m_channel->setRange(0, MaxChannel);
    m_channel->setSpecialValueText(uiText("Device.Wireless.Unchanged"));
    m_channel->setValue(session()->receiverInfo().value(QStringLiteral("channel")).toInt());
    form->addRow(uiText("Device.Wireless.Channel"), m_channel);
    body()->addLayout(form);
    QPushButton* generate = addAction(uiText("Device.Wireless.Generate"), "generateReceiverKey");
    QPushButton* apply = addAction(uiText("Device.Wireless.Apply"), "applyReceiver");
    body()->addWidget(generate);
    body()->addWidget(apply);
    QPushButton* status = addAction(uiText("Device.Wireless.ReadStatus"), "readReceiverStatus");
    body()->addWidget(status);
    m_receiverStatus = addAnswerLabel(QStringLiteral("receiverStatus"));
    QPushButton* restart = addAction(uiText("Device.Wireless.RestartReceiver"), "restartReceiver");
    body()->addWidget(restart);
    connect(generate, &QPushButton::clicked, this, &WirelessPanel::generateReceiverKey);
    connect(apply, &QPushButton::clicked, this, &WirelessPanel::applyReceiver);
    connect(status, &QPushButton::clicked, this, &WirelessPanel::readReceiverStatus);
    connect(restart, &QPushButton::clicked, this, &WirelessPanel::restartReceiver);
}

void WirelessPanel::buildDevice()
{
    m_linkState = wrappedLabel(QStringLiteral("wirelessState"));
    m_linkState->setTextFormat(Qt::PlainText); // the device's words
    body()->addWidget(m_linkState);
    auto* form = new QFormLayout;
    m_peer = new QLineEdit;
    m_peer->setObjectName(QStringLiteral("peerMac"));
    m_peer->setPlaceholderText(uiText("Device.Wireless.ReceiverAddress"));
    form->addRow(uiText("Device.Wireless.Receiver"), m_peer);
    body()->addLayout(form);
    m_generateKey = new QCheckBox(uiText("Device.Wireless.GenerateKey"));
    m_generateKey->setObjectName(QStringLiteral("generateKey"));
    body()->addWidget(m_generateKey);
    QPushButton* send = addAction(uiText("Device.Wireless.SendToReceiver"), "sendToReceiver");
    QPushButton* off = addAction(uiText("Device.Wireless.TurnOff"), "turnOffWireless");
    body()->addWidget(send);
    body()->addWidget(off);
    m_generatedKey = addAnswerLabel(QStringLiteral("generatedKey"));
    m_generatedKey->setVisible(false);
    connect(send, &QPushButton::clicked, this, &WirelessPanel::sendToReceiver);
    connect(off, &QPushButton::clicked, this, &WirelessPanel::turnOff);
}

void WirelessPanel::sessionBecameReady()
{
    if (!isForReceiver())
        readLink();
}

void WirelessPanel::generateReceiverKey()
{
    if (!isForReceiver() || !canStart())
        return;
    begin(uiText("Device.Wireless.AskingKey"));
    session()->setReceiver(
        {}, true, std::nullopt, guarded([this](bool ok, const QString& key, const QString& error) {
            if (ok)
                m_key->setText(key);
            receiverAnswered(ok, key, error, uiText("Device.Wireless.NewKey").arg(key));
        }));
}

void WirelessPanel::applyReceiver()
{
    if (!isForReceiver() || !canStart())
        return;
    const std::optional<int> channel =
        m_channel->value() > 0 ? std::optional<int>(m_channel->value()) : std::nullopt;
    begin(uiText("Device.Wireless.SendingSettings"));
    session()->setReceiver(m_key->text(), false, channel,
                           guarded([this](bool ok, const QString& key, const QString& error) {
                               receiverAnswered(ok, key, error,
                                                uiText("Device.Wireless.SettingsTaken"));
                           }));
}

void WirelessPanel::readReceiverStatus()
{
    if (!isForReceiver() || !canStart())
        return;
    begin(uiText("Device.Wireless.AskingStatus"));
    session()->receiverStatus(guarded([this](bool ok, const QString& key, const QString& error) {
        if (ok && session())
            m_receiverStatus->setText(answerLines(session()->receiverInfo()));
        receiverAnswered(ok, key, error, {});
    }));
}

void WirelessPanel::restartReceiver()
{
    if (!isForReceiver() || !canStart())
        return;
    begin(uiText("Device.Wireless.RestartingReceiver"));
    session()->rebootReceiver(guarded([this](bool ok, const QString& key, const QString& error) {
        receiverAnswered(ok, key, error, uiText("Device.Wireless.ReceiverRestarting"));
    }));
}

void WirelessPanel::receiverAnswered(bool ok, const QString&, const QString& error,
                                     const QString& success)
{
    if (ok)
        succeed(success);
    else
        fail(error);
}

void WirelessPanel::readLink()
{
    if (isForReceiver() || !canStart())
        return;
    begin(uiText("Device.Wireless.ReadingLink"));
    session()->wirelessLink(guarded([this](const RpcResult& result, const WirelessLink& link) {
        if (settle(result))
            m_linkState->setText(describe(link));
    }));
}

void WirelessPanel::sendToReceiver()
{
    if (isForReceiver() || !canStart())
        return;
    // Six pairs of hex digits, with ":" or "-" between them; sent with ":" in capitals.
    static const QRegularExpression mac(
        QStringLiteral("\\A[0-9A-Fa-f]{2}([:-][0-9A-Fa-f]{2}){5}\\z"));
    const QString peer = m_peer->text().trimmed().toUpper().replace(u'-', u':');
    if (peer.isEmpty()) {
        fail(uiText("Device.Wireless.TypeAddress"));
        return;
    }
    if (!mac.match(peer).hasMatch()) {
        fail(uiText("Device.Wireless.AddressFormat"));
        return;
    }
    begin(uiText("Device.Wireless.SettingUp"));
    m_generatedKey->setVisible(false);
    session()->enableWirelessTransmitter(
        peer, m_generateKey->isChecked(),
        guarded([this](const RpcResult& result, const QString& key) {
            if (!settle(result))
                return;
            showMessage(m_generatedKey,
                        key.isEmpty() ? QString() : uiText("Device.Wireless.GiveKey").arg(key),
                        false);
            readLink();
        }));
}

void WirelessPanel::turnOff()
{
    if (isForReceiver() || !canStart())
        return;
    begin(uiText("Device.Wireless.TurningOff"));
    session()->disableEspNowSender(guarded([this](const RpcResult& result) {
        if (settle(result))
            readLink();
    }));
}

} // namespace vantorelle
