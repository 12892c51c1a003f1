#include "wireless_panel.h"

#include "answer_lines.h"
#include "panel_style.h"

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
        text = link.key_set
                   ? QStringLiteral("Sending scores to the receiver %1, with a key.")
                         .arg(link.peer_mac)
                   : QStringLiteral("Sending scores to the receiver %1.").arg(link.peer_mac);
    else if (link.role == QLatin1String("off") || link.role.isEmpty())
        text = QStringLiteral("The wireless link is off.");
    else
        text = QStringLiteral("The wireless link is set to %1.").arg(link.role);
    if (!link.start_error.isEmpty())
        text += QStringLiteral(" It could not start: %1").arg(link.start_error);
    return text;
}

} // namespace

WirelessPanel::WirelessPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "wirelessPanel", QStringLiteral("Wireless link"), parent)
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
    form->addRow(QStringLiteral("Key"), m_key);
    m_channel = new QSpinBox;
    m_channel->setObjectName(QStringLiteral("receiverChannel"));
    m_channel->setRange(0, MaxChannel);
    m_channel->setSpecialValueText(QStringLiteral("Unchanged"));
    m_channel->setValue(session()->receiverInfo().value(QStringLiteral("channel")).toInt());
    form->addRow(QStringLiteral("Channel"), m_channel);
    body()->addLayout(form);
    QPushButton* generate = addAction(QStringLiteral("Generate"), "generateReceiverKey");
    QPushButton* apply = addAction(QStringLiteral("Apply"), "applyReceiver");
    body()->addWidget(generate);
    body()->addWidget(apply);
    QPushButton* status = addAction(QStringLiteral("Read status"), "readReceiverStatus");
    body()->addWidget(status);
    m_receiverStatus = addAnswerLabel(QStringLiteral("receiverStatus"));
    QPushButton* restart = addAction(QStringLiteral("Restart receiver"), "restartReceiver");
    body()->addWidget(restart);
    connect(generate, &QPushButton::clicked, this, &WirelessPanel::generateReceiverKey);
    connect(apply, &QPushButton::clicked, this, &WirelessPanel::applyReceiver);
    connect(status, &QPushButton::clicked, this, &WirelessPanel::readReceiverStatus);
    connect(restart, &QPushButton::clicked, this, &WirelessPanel::restartReceiver);
}

void WirelessPanel::buildDevice()
{
    m_linkState = wrappedLabel(QStringLiteral("wirelessState"));
    body()->addWidget(m_linkState);
    auto* form = new QFormLayout;
    m_peer = new QLineEdit;
    m_peer->setObjectName(QStringLiteral("peerMac"));
    m_peer->setPlaceholderText(QStringLiteral("Receiver address, e.g. 24:6F:28:AA:BB:CC"));
    form->addRow(QStringLiteral("Receiver"), m_peer);
    body()->addLayout(form);
    m_generateKey = new QCheckBox(QStringLiteral("Generate a key"));
    m_generateKey->setObjectName(QStringLiteral("generateKey"));
    body()->addWidget(m_generateKey);
    QPushButton* send = addAction(QStringLiteral("Send scores to a receiver"), "sendToReceiver");
    QPushButton* off = addAction(QStringLiteral("Turn off"), "turnOffWireless");
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
    begin(QStringLiteral("Asking the receiver for a new key…"));
    session()->setReceiver(
        {}, true, std::nullopt, guarded([this](bool ok, const QString& key, const QString& error) {
            if (ok)
                m_key->setText(key);
            receiverAnswered(ok, key, error, QStringLiteral("The receiver's new key: %1").arg(key));
        }));
}

void WirelessPanel::applyReceiver()
{
    if (!isForReceiver() || !canStart())
        return;
    const std::optional<int> channel =
        m_channel->value() > 0 ? std::optional<int>(m_channel->value()) : std::nullopt;
    begin(QStringLiteral("Sending the settings to the receiver…"));
    session()->setReceiver(m_key->text(), false, channel,
                           guarded([this](bool ok, const QString& key, const QString& error) {
                               receiverAnswered(ok, key, error,
                                                QStringLiteral("The receiver took the settings."));
                           }));
}

void WirelessPanel::readReceiverStatus()
{
    if (!isForReceiver() || !canStart())
        return;
    begin(QStringLiteral("Asking the receiver for its status…"));
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
    begin(QStringLiteral("Restarting the receiver…"));
    session()->rebootReceiver(guarded([this](bool ok, const QString& key, const QString& error) {
        receiverAnswered(ok, key, error,
                         QStringLiteral("The receiver is restarting. It will be back in a "
                                        "moment."));
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
    begin(QStringLiteral("Reading the wireless link…"));
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
        fail(QStringLiteral("Type the receiver's address."));
        return;
    }
    if (!mac.match(peer).hasMatch()) {
        fail(QStringLiteral("The receiver's address is six pairs of digits 0-9 and A-F, such as "
                            "24:6F:28:AA:BB:CC."));
        return;
    }
    begin(QStringLiteral("Setting up the wireless link…"));
    m_generatedKey->setVisible(false);
    session()->enableWirelessTransmitter(
        peer, m_generateKey->isChecked(),
        guarded([this](const RpcResult& result, const QString& key) {
            if (!settle(result))
                return;
            showMessage(m_generatedKey,
                        key.isEmpty() ? QString()
                                      : QStringLiteral("Give the receiver this key: %1").arg(key),
                        false);
            readLink();
        }));
}

void WirelessPanel::turnOff()
{
    if (isForReceiver() || !canStart())
        return;
    begin(QStringLiteral("Turning the wireless link off…"));
    session()->disableEspNowSender(guarded([this](const RpcResult& result) {
        if (settle(result))
            readLink();
    }));
}

} // namespace vantorelle
