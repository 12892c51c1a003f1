#pragma once

namespace vantorelle {

// Registers the score text source type `vantorelle_text`.
void registerTextSource();

// Renders every score text again from the live data; called on the UI thread after a change.
void refreshTextSources();

} // namespace vantorelle
