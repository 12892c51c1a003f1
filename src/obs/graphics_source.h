#pragma once

namespace vantorelle {

// Registers "vantorelle_graphics": one of the account's hosted graphics pages, shown through a
// private browser source.
void registerGraphicsSource();

} // namespace vantorelle
