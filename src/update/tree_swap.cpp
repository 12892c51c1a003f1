#include "tree_swap.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

namespace vantorelle {

namespace {

constexpr QDir::Filters AllFiles = QDir::Files | QDir::Hidden | QDir::System;

QStringList filesBelow(const QString& folder)
{
    QStringList files;
    QDirIterator it(folder, AllFiles, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(it.next());
    return files;
}

bool isBusy(const PathPredicate& busy, const QString& path)
{
    return busy && busy(path);
}

bool holdsBusyFile(const QString& folder, const PathPredicate& busy)
{
    if (!busy)
        return false;
    const QStringList files = filesBelow(folder);
    return std::any_of(files.cbegin(), files.cend(), busy);
}

bool removeFile(const QString& path, const PathPredicate& busy)
{
    return !isBusy(busy, path) && QFile::remove(path);
}

bool renameFolder(const QString& from, const QString& to, const PathPredicate& busy)
{
    return !holdsBusyFile(from, busy) && QDir().rename(from, to);
}

SwapResult failure(const QString& reason)
{
    return {false, false, reason};
}

// Replaces the whole folder in two renames; false (with everything as it was) when it cannot.
bool swapWholeFolder(const QString& source, const QString& target, const QString& backup,
                     const PathPredicate& busy, QString* rollbackFailure)
{
    if (!QDir(backup).removeRecursively() || !QDir().mkpath(QFileInfo(backup).absolutePath()))
        return false;
    if (!renameFolder(target, backup, busy))
        return false;
    if (renameFolder(source, target, busy))
        return true;
    if (!renameFolder(backup, target, busy))
        *rollbackFailure = QStringLiteral("the current files were left in %1")
                               .arg(QDir::toNativeSeparators(backup));
    return false;
}

QString installFile(const QString& file, const QString& destination, const QString& shownName,
                    const PathPredicate& busy)
{
    QDir().mkpath(QFileInfo(destination).absolutePath());
    const QFileInfo existing(destination);
    if (existing.exists() || existing.isSymLink()) {
        const QString aside = destination + QStringLiteral(".old");
        if (QFileInfo::exists(aside) || QFileInfo(aside).isSymLink())
            removeFile(aside, busy);
        if (!QFile::rename(destination, aside))
            return QStringLiteral("%1 is in use").arg(shownName);
    }
    if (QFile::rename(file, destination) || QFile::copy(file, destination))
        return {};
    return QStringLiteral("could not write %1").arg(shownName);
}

SwapResult swapFileByFile(const QString& source, const QString& target, const PathPredicate& busy)
{
    if (!QFileInfo(source).isDir())
        return failure(QStringLiteral("nothing to install"));
    const QStringList files = filesBelow(source);
    if (files.isEmpty())
        return failure(QStringLiteral("the package is empty"));
    const QDir from(source);
    const QDir to(target);
    for (const QString& file : files) {
        const QString relative = from.relativeFilePath(file);
        const QString error =
            installFile(file, to.filePath(relative), QDir::toNativeSeparators(relative), busy);
        if (!error.isEmpty())
            return failure(error);
    }
    return {true, false, {}};
}

} // namespace

SwapResult swapTree(const QString& source, const QString& target, const QString& backup,
                    const PathPredicate& isBusy)
{
    if (QFileInfo(source).isDir() && QFileInfo(target).isDir()) {
        QString rollbackFailure;
        if (swapWholeFolder(source, target, backup, isBusy, &rollbackFailure))
            return {true, true, {}};
        if (!rollbackFailure.isEmpty())
            return failure(rollbackFailure);
    }
    return swapFileByFile(source, target, isBusy);
}

int removeOldFiles(const QString& folder)
{
    int removed = 0;
    QDirIterator it(folder, {QStringLiteral("*.old")}, AllFiles, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        if (QFile::remove(it.next()))
            ++removed;
    }
    return removed;
}

} // namespace vantorelle
