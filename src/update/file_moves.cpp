#include "file_moves.h"

#include <QDir>
#include <QFile>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#endif

namespace vantorelle {

#ifdef Q_OS_WIN

namespace {

std::wstring native(const QString& path)
{
    return QDir::toNativeSeparators(path).toStdWString();
}

} // namespace

bool replaceFile(const QString& from, const QString& to)
{
    return MoveFileExW(native(from).c_str(), native(to).c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

bool linkFile(const QString& path, const QString& alias)
{
    // A module in use can be renamed but not replaced: the swap moves it aside instead.
    Q_UNUSED(path);
    Q_UNUSED(alias);
    return false;
}

bool exchangeFolders(const QString& first, const QString& second)
{
    Q_UNUSED(first);
    Q_UNUSED(second);
    return false;
}

#else

bool replaceFile(const QString& from, const QString& to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

bool linkFile(const QString& path, const QString& alias)
{
    return ::link(QFile::encodeName(path).constData(), QFile::encodeName(alias).constData()) == 0;
}

bool exchangeFolders(const QString& first, const QString& second)
{
#ifdef RENAME_EXCHANGE
    return ::renameat2(AT_FDCWD, QFile::encodeName(first).constData(), AT_FDCWD,
                       QFile::encodeName(second).constData(), RENAME_EXCHANGE) == 0;
#else
    Q_UNUSED(first);
    Q_UNUSED(second);
    return false;
#endif
}

#endif

} // namespace vantorelle
