#include "unpacked_tree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <filesystem>
#include <system_error>

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

QString linkText()
{
    return QStringLiteral("The update package contained an unexpected link, so it was rejected. "
                          "Nothing was changed.");
}

// True when Qt reaches the entry under the name the file system holds. Qt's listings skip a
// name the local encoding cannot show, so such an entry could hide anything.
bool nameSurvives(const std::filesystem::path& name)
{
#ifdef Q_OS_WIN
    Q_UNUSED(name);
    return true; // UTF-16 names, as in QString
#else
    const QByteArray raw = QByteArray::fromStdString(name.native());
    return QFile::encodeName(QFile::decodeName(raw)) == raw;
#endif
}

// The failure text for the first entry that may not be installed, read by the names the file
// system holds: a name Qt cannot reach, a link, or a file with a second name (a hard link,
// whose other name may be anywhere). Empty when there is none.
QString refusedByName(const QString& folder)
{
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator it(QDir(folder).filesystemAbsolutePath(), error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        if (!nameSurvives(it->path().filename()))
            return notInShape();
        const bool link = it->is_symlink(error);
        if (error)
            break;
        if (link || (it->is_regular_file(error) && it->hard_link_count(error) > 1))
            return linkText();
    }
    return error ? notInShape() : QString();
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

    if (const QString text = refusedByName(unpackFolder); !text.isEmpty())
        return rejected(text);
    if (holdsForeignEntry(unpackFolder))
        return rejected(linkText());

    const QString root = entries.first().absoluteFilePath();
    if (!QFileInfo(QDir(root).filePath(moduleRelativePath)).isFile())
        return rejected(QStringLiteral("The update package did not contain the plugin for this "
                                       "computer. Nothing was changed."));
    return {true, root, {}};
}

} // namespace vantorelle
