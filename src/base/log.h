#pragma once

#include <QString>

#include <functional>

namespace vantorelle {

enum class LogLevel
{
    Error,
    Warning,
    Info,
    Debug
};

// Where the plug-in's log lines go. The module sends them to the host's log; without a sink
// (tests, command-line tools) they go to Qt's message handler.
using LogSink = std::function<void(LogLevel level, const QString& line)>;

void setLogSink(LogSink sink);
// Writes one line, e.g. "[vantorelle] plugin unloaded".
void logLine(LogLevel level, const QString& line);

} // namespace vantorelle
