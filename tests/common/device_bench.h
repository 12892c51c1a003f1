#pragma once

// Header only: the suites that include it link the simulator and the widgets, the test kit
// itself does not.

#include "admin/device_session.h"
#include "links/http_link.h"
#include "links/usb_link.h"
#include "sim/admin_responder.h"
#include "sim/lan_device.h"
#include "sim/usb_device.h"

#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QWidget>

#include <memory>

namespace vantorelle::test {

// Shrunk timings; the sim answers at once.
inline const DeviceSessionSettings FastSession{
    .pollIntervalMs = 50, .requestTimeoutMs = 3000, .verifyDelayMs = 10, .busyRetryDelayMs = 10};
inline const UsbLinkSettings FastLink{
    .helloIntervalMs = 50, .giveUpMs = 2000, .pingIntervalMs = 100};

// A signed-in session over USB or the local network to a simulated device.
struct Bench
{
    explicit Bench(bool overNetwork, bool receiver = false)
    {
        if (overNetwork) {
            lan = std::make_unique<sim::LanDevice>();
            started = lan->start();
            link = std::make_unique<HttpLink>(lan->address());
        } else {
            usb = std::make_unique<sim::UsbDevice>();
            usb->setRole(receiver ? sim::UsbDevice::Role::Receiver : sim::UsbDevice::Role::Device);
            started = usb->start();
            link = std::make_unique<UsbLink>(usb->portPath(), FastLink);
        }
        session->setPassword(QStringLiteral("admin"));
        session->start(link.get());
        started = started && QTest::qWaitFor([this] {
                      return session->state() == DeviceSession::State::Ready;
                  });
    }
    sim::AdminResponder& responder() { return lan ? lan->responder() : *usb->admin(); }

    std::unique_ptr<sim::LanDevice> lan;
    std::unique_ptr<sim::UsbDevice> usb;
    std::unique_ptr<DeviceLink> link;
    std::shared_ptr<DeviceSession> session = std::make_shared<DeviceSession>(FastSession);
    bool started = false;
};

template <typename T = QLabel> T* child(QWidget* panel, const char* name)
{
    return panel->findChild<T*>(QLatin1String(name));
}

// The panel's status line; empty while it is hidden.
inline QString message(QWidget* panel)
{
    QLabel* label = child(panel, "panelMessage");
    return label->isHidden() ? QString() : label->text();
}

inline bool shownAsFailure(QWidget* panel)
{
    return child(panel, "panelMessage")->styleSheet().contains(QLatin1String("#d9534f"));
}

inline void click(QWidget* panel, const char* button)
{
    QPushButton* b = child<QPushButton>(panel, button);
    QVERIFY2(b && b->isEnabled(), button);
    b->click();
}

inline void savePicture(QWidget* panel, const QString& name)
{
    const QString folder = QStringLiteral(VANTORELLE_ARTIFACT_DIR);
    QDir().mkpath(folder);
    QVERIFY(panel->grab().save(
        QStringLiteral("%1/%2.png")
            .arg(folder, QString(name).replace(QLatin1Char(' '), QLatin1Char('_')))));
}

} // namespace vantorelle::test
