// Feed settings.json as the plug-in reads it at start. Every read stays within its range (a TCP
// port, 1 to 3600 s, a check time the dock can show as a date, a route that is cloud unless the
// file says exactly "lan"), and what the store saves reads back as the same settings.
#include "fuzz_require.h"
#include "settings_store.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <cmath>
#include <cstdint>

using vantorelle::fuzz::require;

namespace {

QVariantMap textMap(const QMap<QString, QString>& map)
{
    QVariantMap variants;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        variants.insert(it.key(), it.value());
    return variants;
}

// Every read of the store, for the devices in `ids`.
QJsonObject readAll(const vantorelle::SettingsStore& store, const QStringList& ids)
{
    QJsonObject routes;
    QJsonObject lan;
    for (const QString& id : ids) {
        routes.insert(id, store.route(id) == vantorelle::Route::Lan ? "lan" : "cloud");
        const vantorelle::LanEntry entry = store.lanEntry(id);
        lan.insert(id, QJsonObject{{"host", entry.host},
                                   {"token", entry.token},
                                   {"name", entry.name},
                                   {"usable", entry.usable()}});
    }
    return {{"selected", store.selectedDevice()},
            {"enabled", store.serverEnabled()},
            {"port", store.serverPort()},
            {"network", store.serverAllowNetwork()},
            {"share", store.shareConnection()},
            {"updates", store.autoCheckUpdates()},
            {"checked", store.lastUpdateCheck()},
            {"usb", store.lastUsbPort()},
            {"stale", store.staleAfterSeconds()},
            {"routes", routes},
            {"lan", lan},
            {"lan_ids", QJsonArray::fromStringList(store.lanDeviceIds())},
            {"own", QJsonObject::fromVariantMap(textMap(store.operatorFields()))},
            {"held", QJsonObject::fromVariantMap(textMap(store.heldFields()))},
            {"release", store.releaseHoldsWhenLive()},
            {"controllers", store.controllerList()}};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using vantorelle::Route;
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    vantorelle::SettingsStore store;
    store.loadBytes(bytes);

    require(store.serverPort() >= 1 && store.serverPort() <= 65535);
    require(store.staleAfterSeconds() >= 1 && store.staleAfterSeconds() <= 3600);
    const double checked = store.lastUpdateCheck();
    require(std::isfinite(checked) && checked >= 0 && checked <= 253402300799.0);

    const QJsonObject document = QJsonDocument::fromJson(bytes).object();
    QStringList ids = document.value(u"routes").toObject().keys() + store.lanDeviceIds();
    ids << store.selectedDevice() << QString();
    for (const QString& id : ids) {
        if (store.route(id) == Route::Lan)
            require(document.value(u"routes").toObject().value(id).toString() == u"lan");
    }

    // What a save writes reads back as the same settings, and saves again as the same bytes.
    const QByteArray written = store.fileBytes();
    vantorelle::SettingsStore again;
    again.loadBytes(written);
    require(readAll(again, ids) == readAll(store, ids));
    require(again.fileBytes() == written);
    return 0;
}
