#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

namespace vantorelle {

// One UTF-8 text file per field (FOLDER/NAME.txt) for programs that read a value from a file.
// Each file is replaced in one step, so a reader never sees half a value, and only when its
// value changed. A field that goes away leaves its file empty rather than missing, so a reader
// shows nothing instead of an error.
class FieldFiles
{
public:
    explicit FieldFiles(const QString& folder) : m_folder(folder) {}

    // Whether a field so named gets a file: letters, digits, "_" and "-", at most 100 of them,
    // and not a name Windows keeps for a device (CON, NUL, COM1...). Other names could leave
    // the folder or clash on some file system.
    static bool hasFile(const QString& name);
    QString pathOf(const QString& name) const;

    // Writes the files whose value differs from what was last written (all of them the first
    // time) and empties those of the fields that are gone. Returns one sentence per write that
    // failed; those are tried again on the next update.
    QStringList update(const QMap<QString, QString>& fields);

private:
    QString m_folder;
    QMap<QString, QString> m_written; // what each file holds, as far as we know
};

} // namespace vantorelle
