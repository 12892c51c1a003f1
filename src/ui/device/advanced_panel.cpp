#include "advanced_panel.h"

#include "wireless_panel.h"

#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

AdvancedPanel::AdvancedPanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "advancedPanel", QStringLiteral("Advanced"), parent)
{
    // A wireless receiver restarts through its own settings below.
    if (!session || !session->isReceiverMode()) {
        QPushButton* restart = addAction(QStringLiteral("Restart device"), "restartDevice");
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
    confirmThen(QStringLiteral("Restart the device?"),
                QStringLiteral("The scoreboard data stops for about half a minute while it "
                               "restarts."),
                QStringLiteral("Restart"), [this] { restartNow(); });
}

void AdvancedPanel::restartNow()
{
    if (!canStart())
        return;
    begin(QStringLiteral("Restarting the device…"));
    session()->reboot(guarded([this](const RpcResult& result) {
        // The device may drop the link before it answers; the session knows whether that was
        // the restart.
        if (result.ok || (session() && session()->isRestarting()))
            succeed(QStringLiteral("The device is restarting. It will be back in a moment."));
        else
            fail(result.message);
    }));
}

} // namespace vantorelle
