#pragma once

// What the benchmarks that run libobs headless share: OBS's log kept quiet (its last lines shown
// when a run fails), OBS started on the X display with Debian's FreeType text source, and the
// child-process protocol (each run is a process of its own that prints one JSON line).

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <cstdint>

namespace vantorelle::bench {

// Ends the run with the reason, after OBS's last log lines.
[[noreturn]] void fail(const QString& why);

// Starts OBS headless at `fps` with Debian's FreeType text source, its log kept for fail();
// `config` is OBS's configuration folder (obs_module_config_path's root).
void startObs(const QString& config, uint32_t fps);

// A run's figures go out before OBS shuts down: libobs 29's FreeType source now and then crashes
// in FT_Done_Face while OBS destroys it at shutdown (seen with and without the plug-in), and a
// crash there must not cost the run.
void report(const QJsonObject& result);

// Runs this program again with `arguments` and returns the figures it reported, marked when it
// crashed afterwards; empty when it reported none.
QJsonObject runChild(const QStringList& arguments);

} // namespace vantorelle::bench
