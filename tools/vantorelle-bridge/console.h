#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace vantorelle::bridge {

// Writes the bytes to standard output at once (a reader may be waiting for each line).
void writeOut(const QByteArray& bytes);
// Writes one line to standard error.
void printError(const QString& line);
// Asks for a secret: prompts on standard error and reads without echo from a terminal, or reads
// the next line of standard input when it is not a terminal. Nothing when input has ended.
std::optional<QString> readSecret(const QString& prompt);

} // namespace vantorelle::bridge
