#include "atomic_file.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>

namespace vantorelle {

bool saveFileAtomically(const QString& path, const QByteArray& data, const SaveWriter& writer)
{
    if (path.isEmpty())
        return false;
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // Set before any byte is written, so the secrets inside are never readable by others.
    if (!file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        file.cancelWriting();
        return false;
    }
    const bool written = writer ? writer(file, data) : file.write(data) == data.size();
    if (!written) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}

} // namespace vantorelle
