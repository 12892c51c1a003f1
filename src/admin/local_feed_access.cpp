#include "local_feed_access.h"

#include "http_link.h"

#include <memory>

namespace vantorelle {

namespace {

// The steps share one record; each runs from the answer to the one before.
struct Setup
{
    DeviceSession* session = nullptr; // alive while its answers arrive
    SettingsStore* settings = nullptr;
    LocalFeedDone done;
    LocalFeedAccess access;

    void fail(const RpcResult& result) { done(result, {}); }
};

void store(const std::shared_ptr<Setup>& setup, const QJsonObject& status)
{
    LanEntry& entry = setup->access.entry;
    entry.host = status.value(QLatin1String("wifi_sta_ip")).toString();
    if (entry.host.isEmpty()) {
        if (auto* network = qobject_cast<HttpLink*>(setup->session->link()))
            entry.host = network->host();
    }
    if (entry.host.isEmpty())
        return setup->fail(RpcResult::failure(
            QStringLiteral("no_address"),
            QStringLiteral("The device is not on a network yet. Join it to a Wi-Fi network "
                           "first, then try again.")));
    entry.name = status.value(QLatin1String("name")).toString();
    if (entry.name.isEmpty())
        entry.name = setup->access.deviceId;
    setup->settings->setLanEntry(setup->access.deviceId, entry.host, entry.token, entry.name);
    setup->done(RpcResult::success({}), setup->access);
}

void readStatus(const std::shared_ptr<Setup>& setup)
{
    setup->session->refreshStatus([setup](const RpcResult& result) {
        if (!result.ok)
            return setup->fail(result);
        store(setup, result.result);
    });
}

void readId(const std::shared_ptr<Setup>& setup)
{
    setup->session->getDeviceId([setup](const RpcResult& result, const QString& id) {
        if (!result.ok)
            return setup->fail(result);
        setup->access.deviceId = id;
        readStatus(setup);
    });
}

} // namespace

void setUpLocalFeed(DeviceSession* session, SettingsStore* settings, LocalFeedDone done)
{
    auto setup = std::make_shared<Setup>();
    setup->session = session;
    setup->settings = settings;
    setup->done = std::move(done);
    session->ensureApiToken([setup](const RpcResult& result, const QString& token) {
        if (!result.ok)
            return setup->fail(result);
        setup->access.entry.token = token;
        readId(setup);
    });
}

} // namespace vantorelle
