#include "status_panel.h"

#include "panel_style.h"

#include <QLabel>
#include <QPushButton>
#include <QStringList>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

constexpr int NetworkTestTimeoutMs = 30000; // the device tries gateway, DNS, internet and cloud

QString plainText(const QJsonValue& value)
{
    if (value.isBool())
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    if (value.isDouble())
        return QString::number(value.toDouble(), 'g', 15);
    return value.toString();
}

} // namespace

StatusPanel::StatusPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "statusPanel", QStringLiteral("Status"), parent)
{
    QPushButton* refresh = addAction(QStringLiteral("Refresh"), "refreshStatus");
    body()->addWidget(refresh);
    m_status = wrappedLabel(QStringLiteral("statusLines"));
    m_status->setTextInteractionFlags(Qt::TextSelectableByMouse);
    body()->addWidget(m_status);
    QPushButton* test = addAction(QStringLiteral("Run network test"), "runNetworkTest");
    body()->addWidget(test);
    m_networkTest = wrappedLabel(QStringLiteral("networkTestLines"));
    m_networkTest->setTextInteractionFlags(Qt::TextSelectableByMouse);
    body()->addWidget(m_networkTest);
    body()->addStretch();

    connect(refresh, &QPushButton::clicked, this, &StatusPanel::refresh);
    connect(test, &QPushButton::clicked, this, &StatusPanel::runNetworkTest);
}

void StatusPanel::refresh()
{
    if (!sessionReady() || isBusy())
        return;
    begin(QStringLiteral("Reading the device's status…"));
    session()->refreshStatus(guarded([this](const RpcResult& result) {
        if (settle(result))
            m_status->setText(describe(result.result));
    }));
}

void StatusPanel::runNetworkTest()
{
    if (!sessionReady() || isBusy())
        return;
    begin(QStringLiteral("Running the network test…"));
    session()->request(QStringLiteral("networkTest"), {}, NetworkTestTimeoutMs,
                       guarded([this](const RpcResult& result) {
                           if (settle(result))
                               m_networkTest->setText(describe(result.result));
                       }));
}

QString StatusPanel::describe(const QJsonObject& object)
{
    QStringList lines;
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.value().isObject() || it.value().isArray())
            continue;
        lines.append(QStringLiteral("%1: %2").arg(it.key(), plainText(it.value())));
    }
    return lines.join(QLatin1Char('\n'));
}

} // namespace vantorelle
