#pragma once

#include <QString>

namespace vantorelle {

// Development and test builds let the environment move the portal (VANTORELLE_PORTAL_URL), the
// update manifest (VANTORELLE_UPDATE_URL) and the devices' feed port (VANTORELLE_FEED_PORT), so
// the simulators can stand in for them. A release build keeps the addresses it was built with:
// whoever can set OBS's environment must not be able to redirect the sign-in or the updates.
bool addressOverridesAllowed();
// The variable's value where overrides are allowed and it is set; empty otherwise.
QString addressOverride(const char* variable);

} // namespace vantorelle
