#include "unpacked_tree.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

namespace vantorelle {

namespace {

constexpr QDir::Filters AllEntries =
    QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

UnpackedTree rejected(const QString& text)
{
    return {false, {}, text};
}

QString notInShape()
{
    return QStringLiteral("The update package was not in the expected shape. Nothing was changed.");
}

// Links are refused outright; a path that still resolves elsewhere is refused the same way.
bool holdsForeignEntry(const QString& folder)
{
    const QString base = QFileInfo(folder).canonicalFilePath() + QLatin1Char('/');
    QDirIterator it(folder, AllEntries, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo entry = it.nextFileInfo();
        if (entry.isSymLink() || entry.isJunction())
            return true;
        if (!entry.canonicalFilePath().startsWith(base))
            return true;
    }
    return false;
}

} // namespace

UnpackedTree inspectUnpackedTree(const QString& unpackFolder, const QString& moduleRelativePath)
{
    QFileInfoList entries = QDir(unpackFolder).entryInfoList(AllEntries);
    entries.removeIf(
        [](const QFileInfo& entry) { return entry.fileName() == QLatin1String("__MACOSX"); });
    if (entries.size() != 1 || !entries.first().isDir() || entries.first().isSymLink())
        return rejected(notInShape());

    if (holdsForeignEntry(unpackFolder))
        return rejected(QStringLiteral("The update package contained an unexpected link, so it "
                                       "was rejected. Nothing was changed."));

    const QString root = entries.first().absoluteFilePath();
    if (!QFileInfo(QDir(root).filePath(moduleRelativePath)).isFile())
        return rejected(QStringLiteral("The update package did not contain the plugin for this "
                                       "computer. Nothing was changed."));
    return {true, root, {}};
}

} // namespace vantorelle
