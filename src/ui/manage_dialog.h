#pragma once

#include "controller_catalogue.h"
#include "portal_client.h"

#include <QDialog>
#include <QPointer>

#include <functional>

class QComboBox;
class QLabel;

namespace vantorelle {

// Administers a device of the account that is not attached to this computer: every action
// travels through the portal, which passes it on while the device is online.
class ManageDialog : public QDialog
{
    Q_OBJECT

public:
    // `controllers`: the list a device last supplied; without one the makers are offered, the
    // model is typed, and every sport and input type can be picked.
    ManageDialog(const QString& deviceId, PortalClient* portal,
                 const QList<ControllerChoice>& controllers = {}, QWidget* parent = nullptr);

    QString deviceId() const { return m_deviceId; }

    // Sends one command to the device; `done` gets the portal's answer after the dialog has
    // shown a failure.
    void run(const QString& command, const QJsonObject& args,
             std::function<void(const PortalResult&)> done);

    // The status display of an answer: one "key: value" line per plain member of its data.
    static QString statusLines(const PortalResult& result);

private:
    void checkStatus();
    void changeScoreboard();
    void checkForUpdate();
    void restartDevice();
    void waitFor(const QString& text);
    void setActionsEnabled(bool enabled);
    void showFailure(const PortalResult& result);
    void showSuccess(const QString& status, const QString& result);
    // Wraps a completion so an answer after the dialog closed is dropped.
    std::function<void(const PortalResult&)> guarded(std::function<void(const PortalResult&)> fn);
    void fillScoreboardChoices();

    QString m_deviceId;
    QPointer<PortalClient> m_portal;
    QLabel* m_result = nullptr;
    QLabel* m_status = nullptr;
    QList<ControllerChoice> m_controllers;
    // Manufacturer, model, sport and input type.
    QComboBox* m_boxes[4] = {};
};

} // namespace vantorelle
