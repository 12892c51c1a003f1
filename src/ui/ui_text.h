#pragma once

#include <QString>

namespace vantorelle {

// Every text the windows show comes from the module's locale file ("data/locale/en-US.ini") by
// key. Inside OBS the module installs OBS's own lookup, which follows the user's language and
// falls back to English; elsewhere (tests, tools) the English file built into this library
// answers. A key that neither knows comes back as itself, so a missing text shows, not blanks.
QString uiText(const char* key);

// How the module looks texts up (obs_module_text); null returns to the built-in English file.
using TextLookup = const char* (*)(const char* key);
void setTextLookup(TextLookup lookup);

} // namespace vantorelle
