// Feed a small tree as an archive could leave it in the unpack folder, made afresh for each input
// in a sandbox folder (in /dev/shm when there is one, as files on disk cost milliseconds; kept for
// a look when a property breaks). Up to 16 entries: a kind byte (low two bits: file, folder,
// symbolic link, hard link), a path below the unpack folder (a length byte taken modulo 49, then
// as many bytes; ".." climbs, at most to the sandbox), and for links a target in the same form (a
// symbolic link's text, or a file made before). Entries that cannot be made are skipped. The check
// must change nothing; when it accepts, the root is the single top-level folder (besides
// "__MACOSX"), the module in it is a regular file reached without links, and nothing in the unpack
// folder is a link or shares data with a name outside it.
#include "fuzz_require.h"
#include "unpacked_tree.h"

#include <QByteArrayList>
#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <tuple>

using vantorelle::fuzz::require;

namespace {

const char* const Module = "bin/64bit/vantorelle-obs.so";
using Walk = std::map<std::string, std::tuple<mode_t, ino_t, nlink_t>>;

// Where `path` leads below the sandbox, or nothing when it climbs above it, names it, or passes
// something other than a real folder on the way; with `create`, missing folders are made.
std::optional<QByteArray> place(const QByteArray& sandbox, const QByteArray& path, bool create)
{
    QByteArrayList parts{"unpack"};
    for (const QByteArray& part : path.split('/')) {
        if (part == ".." && parts.isEmpty())
            return std::nullopt;
        if (part == "..")
            parts.removeLast();
        else if (!part.isEmpty() && part != ".")
            parts.append(part);
    }
    if (parts.isEmpty() || path.contains('\0'))
        return std::nullopt;
    QByteArray placed = sandbox;
    struct stat st;
    for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
        placed += '/' + parts[i];
        if (create)
            mkdir(placed.constData(), 0700);
        if (lstat(placed.constData(), &st) != 0 || !S_ISDIR(st.st_mode))
            return std::nullopt;
    }
    return placed + '/' + parts.last();
}

// Every entry of `folder`, itself included, walked without following links.
Walk walk(const std::string& folder)
{
    Walk entries;
    struct stat st;
    const auto add = [&](const std::string& path) {
        if (lstat(path.c_str(), &st) == 0)
            entries[path] = {st.st_mode, st.st_ino, st.st_nlink};
    };
    add(folder);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        add(entry.path());
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray sandbox =
        access("/dev/shm", W_OK) == 0 ? "/dev/shm" : QFile::encodeName(QDir::tempPath());
    sandbox += "/vantorelle-fuzz-tree-XXXXXX";
    require(mkdtemp(sandbox.data()) != nullptr);
    const QByteArray unpack = sandbox + "/unpack";
    require(mkdir(unpack.constData(), 0700) == 0);

    // A missing length byte reads as an empty path: the unpack folder, there already, so skipped.
    size_t at = 0;
    const auto text = [&] {
        const size_t length = at < size ? data[at++] % 49 : 0, n = std::min(length, size - at);
        at += n;
        return QByteArray(reinterpret_cast<const char*>(data + at - n), qsizetype(n));
    };
    struct stat st;
    for (int i = 0; i < 16 && at < size; ++i) {
        const int kind = data[at++] & 3;
        const QByteArray name = text(), target = kind >= 2 ? text() : QByteArray();
        const std::optional<QByteArray> path = place(sandbox, name, true);
        const auto from = path && kind == 3 ? place(sandbox, target, false) : std::nullopt;
        if (path && kind == 0)
            mknod(path->constData(), S_IFREG | 0600, 0);
        else if (path && kind == 1)
            mkdir(path->constData(), 0700);
        else if (path && kind == 2 && !target.contains('\0'))
            symlink(target.constData(), path->constData());
        else if (from && lstat(from->constData(), &st) == 0 && S_ISREG(st.st_mode))
            link(from->constData(), path->constData());
    }
    const Walk before = walk(sandbox.toStdString());
    const vantorelle::UnpackedTree tree =
        vantorelle::inspectUnpackedTree(QFile::decodeName(unpack), QString::fromLatin1(Module));
    require(walk(sandbox.toStdString()) == before);
    require(tree.ok == tree.failureText.isEmpty() && tree.ok != tree.root.isEmpty());
    if (tree.ok) {
        QByteArray path = QFile::encodeName(tree.root);
        int topLevel = 0;
        for (const auto& entry : std::filesystem::directory_iterator(unpack.toStdString()))
            require(entry.path().filename() == "__MACOSX" ||
                    (entry.path().native() == path.toStdString() && ++topLevel == 1));
        require(topLevel == 1);
        for (const QByteArray& part : ("/" + QByteArray(Module)).split('/')) {
            path += part.isEmpty() ? "" : '/' + part;
            require(lstat(path.constData(), &st) == 0);
            require(part.endsWith(".so") ? S_ISREG(st.st_mode) : S_ISDIR(st.st_mode));
        }
        // No link inside, and each file's names are all inside: a file's link count is at least its
        // names inside, so the counts add up to the names inside only when no name is outside.
        std::set<ino_t> files;
        size_t names = 0, links = 0;
        for (const auto& [name, entry] : before) {
            const auto [mode, inode, count] = entry;
            const bool inside = name.starts_with(unpack.toStdString() + '/');
            require(!inside || !S_ISLNK(mode));
            if (inside && S_ISREG(mode) && ++names)
                links += files.insert(inode).second ? count : 0;
        }
        require(names == links);
    }
    std::filesystem::remove_all(sandbox.toStdString());
    return 0;
}
