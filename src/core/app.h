#pragma once

#include "core/settings_store.h"
#include "live/live_data.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

namespace vantorelle {

class HostedServer;

// One device of the signed-in account: id and display name first, then the portal's whole record.
struct DeviceEntry
{
    QString id;
    QString name;
    QJsonObject record;
};

// One graphics output of the account.
struct GraphicsOutput
{
    QString id;
    QString name;
    int width = 0;
    int height = 0;
    QString url;
};

// The plug-in's one application object, alive from module load to unload. Everything on the UI
// thread; code elsewhere reaches it through instance(), which is null outside that span.
class App : public QObject
{
    Q_OBJECT

public:
    // `settingsPath` is where "settings.json" lives; empty keeps the defaults and saves nothing.
    explicit App(const QString& settingsPath, QObject* parent = nullptr);
    ~App() override;

    static App* instance();
    static void setInstance(App* app);

    LiveData& live() { return m_live; }
    SettingsStore& settings() { return m_settings; }
    HostedServer* server() const { return m_server; }
    const QList<DeviceEntry>& devices() const { return m_devices; }
    QString devicesError() const { return m_devicesError; }
    const QList<GraphicsOutput>& outputs() const { return m_outputs; }
    QString outputsError() const { return m_outputsError; }

    // Makes a device the live-data device and remembers it.
    void selectDevice(const QString& id);
    // Starts or stops the sharing server as the settings say.
    void applyServerSettings();
    // Answers one request of a sharing-server client.
    QJsonObject handleServerRequest(const QString& op, const QJsonObject& request);

Q_SIGNALS:
    void usbRelaysChanged();
    void devicesChanged();
    void outputsChanged();
    void serverStateChanged();

private:
    LiveData m_live;
    SettingsStore m_settings;
    QList<DeviceEntry> m_devices;
    QString m_devicesError;
    QList<GraphicsOutput> m_outputs;
    QString m_outputsError;
    HostedServer* m_server = nullptr;
};

} // namespace vantorelle
