#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace vantorelle {

// What a swap of the plug-in folder is about to do, written beside that folder before anything
// in it changes, so that a start-up after a crash can finish the swap or undo it. The swap is
// complete when its journal is gone.
struct SwapPlan
{
    enum class Way
    {
        Folder, // the folder moves to `backup` and the new tree takes its place
        Files   // each file is replaced on its own; the one it replaces is kept as "<name>.old"
    };
    struct Entry
    {
        QString path;      // relative to the plug-in folder, '/' separated
        QByteArray sha256; // hex digest of the new file; empty when the file goes away
        bool replaces = false;
    };

    Way way = Way::Files;
    QString backup;             // Folder: where the current folder is moved to
    QList<Entry> entries;       // Files: in the order they are replaced
    QStringList createdFolders; // Files: folders the swap creates, parents first
    int done = 0;               // Files: entries replaced so far
};

// Largest journal read back; a real one holds a few hundred entries.
inline constexpr qsizetype MaxJournalBytes = 4 * 1024 * 1024;

QByteArray journalBytes(const SwapPlan& plan);
// The plan read back, or nothing when the bytes are not a journal this program wrote (a
// relative path that leaves the folder counts as not written by it).
std::optional<SwapPlan> parseJournal(QByteArrayView bytes);

// Replaces the journal at `path` so that a reader sees the old one or the new one, never a part.
bool writeJournal(const QString& path, const SwapPlan& plan);

} // namespace vantorelle
