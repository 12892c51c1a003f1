#include "update_platform.h"

#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryFile>

namespace vantorelle {

#ifdef Q_OS_WIN

QString platformPackageKey()
{
    return QStringLiteral("windows-x64");
}

QString defaultModuleRelativePath()
{
    return QStringLiteral("bin/64bit/vantorelle-obs.dll");
}

QString defaultArchiveTool()
{
    const QString root = qEnvironmentVariable("SystemRoot", QStringLiteral("C:\\Windows"));
    return root + QStringLiteral("\\System32\\tar.exe");
}

bool isWritablePath(const QString& path)
{
    // Attribute bits say little about protected folders here: try to create a file instead.
    const QFileInfo info(path);
    if (!info.isDir())
        return info.isWritable();
    QTemporaryFile probe(info.absoluteFilePath() + QStringLiteral("/.write-probe-XXXXXX"));
    return probe.open();
}

#else

QString platformPackageKey()
{
    return QStringLiteral("linux-x86_64");
}

QString defaultModuleRelativePath()
{
    return QStringLiteral("bin/64bit/vantorelle-obs.so");
}

QString defaultArchiveTool()
{
    // libarchive's tar: same arguments as the Windows tool, and it reads zip.
    const QString found = QStandardPaths::findExecutable(QStringLiteral("bsdtar"));
    return found.isEmpty() ? QStringLiteral("/usr/bin/bsdtar") : found;
}

bool isWritablePath(const QString& path)
{
    return QFileInfo(path).isWritable();
}

#endif

} // namespace vantorelle
