#pragma once

#include "device_session.h"
#include "settings_store.h"

#include <QString>

#include <functional>

namespace vantorelle {

// What OBS needs to take a device's live data straight from it on the local network.
struct LocalFeedAccess
{
    QString deviceId;
    LanEntry entry;
};

using LocalFeedDone = std::function<void(const RpcResult& result, const LocalFeedAccess& access)>;

// Asks the signed-in device for its feed token, its id and its address, and remembers address,
// token and name under the id in `settings`. The address is the one the device reports on its
// Wi-Fi, else the one this computer reached it at over the network. `done` is called once; it is
// not called when the session goes away on the way.
void setUpLocalFeed(DeviceSession* session, SettingsStore* settings, LocalFeedDone done);

} // namespace vantorelle
