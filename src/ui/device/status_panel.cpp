#include "status_panel.h"

#include "answer_lines.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

constexpr int NetworkTestTimeoutMs = 30000; // the device tries gateway, DNS, internet and cloud

} // namespace

StatusPanel::StatusPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "statusPanel", uiText("Device.Status.Title"), parent)
{
    QPushButton* refresh = addAction(uiText("Device.Status.Refresh"), "refreshStatus");
    body()->addWidget(refresh);
    m_status = addAnswerLabel(QStringLiteral("statusLines"));
    QPushButton* test = addAction(uiText("Device.Status.RunNetworkTest"), "runNetworkTest");
    body()->addWidget(test);
    m_networkTest = addAnswerLabel(QStringLiteral("networkTestLines"));
    body()->addStretch();

    connect(refresh, &QPushButton::clicked, this, &StatusPanel::refresh);
    connect(test, &QPushButton::clicked, this, &StatusPanel::runNetworkTest);
}

void StatusPanel::refresh()
{
    if (!canStart())
        return;
    begin(uiText("Device.Status.Reading"));
    session()->refreshStatus(guarded([this](const RpcResult& result) {
        if (settle(result))
            m_status->setText(answerLines(result.result));
    }));
}

void StatusPanel::runNetworkTest()
{
    askAndShow(
        uiText("Device.Status.Testing"),
        [](DeviceSession& session, DeviceSession::Done done) {
            session.networkTest(NetworkTestTimeoutMs, done);
        },
        m_networkTest);
}

} // namespace vantorelle
