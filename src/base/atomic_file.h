#pragma once

#include <QByteArray>
#include <QString>

#include <functional>

class QIODevice;

namespace vantorelle {

// Writes the bytes of a save into the open temporary file. Returns false when the write failed;
// the save is then abandoned and the target stays as it was. Tests replace it to fail a save
// half-way through.
using SaveWriter = std::function<bool(QIODevice& file, const QByteArray& data)>;

// Replaces `path` with `data` in one step: a temporary file beside it, readable and writable by
// the owner only (on Windows: a protected access list for the current user and the system),
// renamed over the target on success. The folder and its parents are created first.
// Returns false (and leaves the old file) on any failure.
bool saveFileAtomically(const QString& path, const QByteArray& data, const SaveWriter& writer = {});

} // namespace vantorelle
