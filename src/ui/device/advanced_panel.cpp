#include "advanced_panel.h"

#include "ui_text.h"
#include "wireless_panel.h"

#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

AdvancedPanel::AdvancedPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "advancedPanel", uiText("Device.Advanced.Title"), parent)
{
    // A wireless receiver restarts through its own settings below.
    if (!session || !session->isReceiverMode()) {
        QPushButton* restart = addAction(uiText("Device.Advanced.Restart"), "restartDevice");
        body()->addWidget(restart);
        connect(restart, &QPushButton::clicked, this, &AdvancedPanel::restartDevice);
    }
    m_wireless = new WirelessPanel(session);
    body()->addWidget(m_wireless);
    body()->addStretch();
}

void AdvancedPanel::restartDevice()
{
    if (!canStart() || session()->isReceiverMode())
        return;
    confirmThen(uiText("Device.Advanced.RestartQuestion"),
                uiText("Device.Advanced.RestartConsequence"),
                uiText("Device.Advanced.RestartConfirm"), [this] { restartNow(); });
}

void AdvancedPanel::restartNow()
{
    if (!canStart())
        return;
    begin(uiText("Device.Advanced.Restarting"));
    session()->reboot(guarded([this](const RpcResult& result) {
        // The device may drop the link before it answers; the session knows whether that was
        // the restart.
        if (result.ok || (session() && session()->isRestarting()))
            succeed(uiText("Device.Advanced.Restarted"));
        else
            fail(result.message);
    }));
}

} // namespace vantorelle
