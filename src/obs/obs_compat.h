#pragma once

// Differences between the OBS versions the plug-in runs on, in one place.

class QWidget;

namespace vantorelle::compat {

// Adds `widget` to OBS's main window as a dock. Returns false when the front end did not take it
// (no front end, as in a headless host); the caller still owns the widget then.
bool addDock(const char* id, const char* title, QWidget* widget);

// Takes the dock out of the main window where this OBS can do so; otherwise the front end keeps
// it until its main window closes.
void removeDock(const char* id);

} // namespace vantorelle::compat
