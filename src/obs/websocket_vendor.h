#pragma once

namespace vantorelle {

class App;

// Offers the plug-in to remote-control programs through OBS's websocket server, when it is
// loaded: the vendor "vantorelle" with its requests (App::handleVendorRequest) and the event
// "SnapshotChanged" carrying the snapshot on every change of what the outputs show. Called once
// every module has loaded; without the websocket server nothing happens and nothing is logged
// above debug level.
void registerWebsocketVendor(App* app);
// Takes the requests out again; events stop with it. Called at unload, on OBS's UI thread.
void unregisterWebsocketVendor();

} // namespace vantorelle
