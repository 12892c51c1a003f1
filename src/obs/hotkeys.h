#pragma once

namespace vantorelle {

// OBS hotkeys for the operator: release every held field, and reconnect the current route. Their
// key bindings are kept in the scene collection. Both run on the UI thread.
void registerHotkeys();
void unregisterHotkeys();

} // namespace vantorelle
