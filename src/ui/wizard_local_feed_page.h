#pragma once

#include "admin/device_session.h"

#include <QPointer>
#include <QString>
#include <QWidget>

#include <functional>

class QLabel;
class QPushButton;

namespace vantorelle {

class SettingsStore;

// Asks the device for its id ("getDeviceId"); `done` gets the id, empty when the request failed.
void fetchDeviceId(DeviceSession* session,
                   std::function<void(const RpcResult& result, const QString& id)> done);

// Lets OBS take the device's live data straight from it on the local network: the device hands
// out its feed token, and its address, token and name are remembered under its id.
class WizardLocalFeedPage : public QWidget
{
    Q_OBJECT

public:
    // `typedHost`: the address the user connected to, used when the device reports none.
    WizardLocalFeedPage(DeviceSession* session, SettingsStore* settings, const QString& typedHost,
                        QWidget* parent = nullptr);

    void enable();

private:
    void store(const QString& token, const QString& id, const QJsonObject& status);
    void fail(const QString& sentence);

    QPointer<DeviceSession> m_session;
    SettingsStore* m_settings;
    QString m_typedHost;
    QPushButton* m_enable = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
