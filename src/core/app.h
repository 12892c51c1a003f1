#pragma once

#include "core/settings_store.h"
#include "live/live_data.h"
#include "update/plugin_updater.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

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

// Where the application object keeps its files, and what it knows of the host.
struct AppEnvironment
{
    // "settings.json"; empty keeps the defaults and saves nothing.
    QString settingsFile;
    // The updater's working folder.
    QString updateFolder;
    // The plug-in root (holding "bin" and "data"); updates are installed there.
    QString pluginRoot;
    // The running OBS version.
    QString obsVersion;
    // Automatic update checks: the first one after start-up, then one a day.
    int firstUpdateCheckMs = 20000;
    int updateCheckIntervalMs = 86400000;
};

// The plug-in's one application object, alive from module load to unload. Everything on the UI
// thread; code elsewhere reaches it through instance(), which is null outside that span.
class App : public QObject
{
    Q_OBJECT

public:
    explicit App(const AppEnvironment& environment, QObject* parent = nullptr);
    ~App() override;

    static App* instance();
    static void setInstance(App* app);

    LiveData& live() { return m_live; }
    SettingsStore& settings() { return m_settings; }
    HostedServer* server() const { return m_server; }
    PluginUpdater& updater() { return m_updater; }
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
    void configureUpdater(const AppEnvironment& environment);
    void onUpdaterStateChanged();
    void automaticUpdateCheck();

    LiveData m_live;
    SettingsStore m_settings;
    QList<DeviceEntry> m_devices;
    QString m_devicesError;
    PluginUpdater m_updater;
    PluginUpdater::State m_updaterState = PluginUpdater::Idle;
    QTimer m_firstUpdateCheck;
    QTimer m_dailyUpdateCheck;
    QList<GraphicsOutput> m_outputs;
    QString m_outputsError;
    HostedServer* m_server = nullptr;
};

} // namespace vantorelle
