#include "plugin_updater_support.h"

#include "test_support.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>
#include <QtEndian>

#include <algorithm>
#include <array>

namespace vantorelle::test {

namespace {

quint32 crc32(const QByteArray& bytes)
{
    static const std::array<quint32, 256> table = [] {
        std::array<quint32, 256> t{};
        for (quint32 i = 0; i < 256; ++i) {
            quint32 c = i;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    quint32 crc = 0xFFFFFFFFu;
    for (const char byte : bytes)
        crc = table[(crc ^ quint8(byte)) & 0xFF] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFFu;
}

void put16(QByteArray& out, quint16 value)
{
    char bytes[2];
    qToLittleEndian(value, bytes);
    out.append(bytes, 2);
}

void put32(QByteArray& out, quint32 value)
{
    char bytes[4];
    qToLittleEndian(value, bytes);
    out.append(bytes, 4);
}

// Fields shared by the local header and the central directory record, from "version needed".
void putCommonFields(QByteArray& out, quint32 crc, quint32 size, quint16 nameLength)
{
    put16(out, 20);     // version needed
    put16(out, 0x0800); // flags: UTF-8 names
    put16(out, 0);      // stored
    put16(out, 0);      // time
    put16(out, 0x21);   // date: 1980-01-01
    put32(out, crc);
    put32(out, size);
    put32(out, size);
    put16(out, nameLength);
    put16(out, 0); // extra length
}

quint32 unixMode(ZipEntry::Kind kind)
{
    switch (kind) {
    case ZipEntry::Folder:
        return 040755;
    case ZipEntry::Link:
        return 0120777;
    case ZipEntry::File:
        break;
    }
    return 0100644;
}

// Writes a file, creating its folder first.
void putFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    writeFile(path, bytes);
}

} // namespace

QByteArray zipArchive(const QList<ZipEntry>& entries)
{
    QByteArray out;
    QByteArray directory;
    for (const ZipEntry& entry : entries) {
        const QByteArray name =
            entry.name.toUtf8() + (entry.kind == ZipEntry::Folder ? "/" : QByteArray());
        const quint32 crc = crc32(entry.data);
        const quint32 offset = quint32(out.size());
        put32(out, 0x04034b50);
        putCommonFields(out, crc, quint32(entry.data.size()), quint16(name.size()));
        out += name + entry.data;

        put32(directory, 0x02014b50);
        put16(directory, 0x0314); // made by: Unix
        putCommonFields(directory, crc, quint32(entry.data.size()), quint16(name.size()));
        put16(directory, 0); // comment length
        put16(directory, 0); // disk
        put16(directory, 0); // internal attributes
        put32(directory, unixMode(entry.kind) << 16 | (entry.kind == ZipEntry::Folder ? 0x10 : 0));
        put32(directory, offset);
        directory += name;
    }
    const quint32 directoryOffset = quint32(out.size());
    out += directory;
    put32(out, 0x06054b50);
    put16(out, 0);
    put16(out, 0);
    put16(out, quint16(entries.size()));
    put16(out, quint16(entries.size()));
    put32(out, quint32(directory.size()));
    put32(out, directoryOffset);
    put16(out, 0);
    return out;
}

QByteArray zipFolder(const QString& folder)
{
    const QString archive = folder + QStringLiteral(".zip");
    QFile::remove(archive);
    const int code = QProcess::execute(QStringLiteral("bsdtar"),
                                       {QStringLiteral("-a"), QStringLiteral("-cf"), archive,
                                        QStringLiteral("-C"), folder, QStringLiteral(".")});
    if (code != 0)
        qWarning("bsdtar could not zip %s", qPrintable(folder));
    return readFile(archive);
}

QByteArray treeDigest(const QString& folder)
{
    if (!QFileInfo(folder).isDir())
        return {};
    QStringList paths;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths.append(it.next());
    std::sort(paths.begin(), paths.end());
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (const QString& path : std::as_const(paths)) {
        const QFileInfo info(path);
        const char kind = info.isSymLink() ? 'l' : info.isDir() ? 'd' : 'f';
        hash.addData(QDir(folder).relativeFilePath(path).toUtf8() + '\0' + kind + '\0');
        hash.addData(QByteArray::number(int(info.permissions())) + '\0');
        if (info.isSymLink())
            hash.addData(info.symLinkTarget().toUtf8());
        else if (info.isFile())
            hash.addData(QCryptographicHash::hash(readFile(path), QCryptographicHash::Sha256));
    }
    return hash.result().toHex();
}

void writePluginTree(const QString& root, const QString& version)
{
    const QDir dir(root);
    putFile(dir.filePath(defaultModuleRelativePath()), "module " + version.toUtf8());
    putFile(dir.filePath(QStringLiteral("data/locale/en-US.ini")),
            "Version=\"" + version.toUtf8() + "\"\n");
    putFile(dir.filePath(QStringLiteral("data/.hidden")), version.toUtf8());
}

void writeScript(const QString& path, const QByteArray& body)
{
    putFile(path, "#!/bin/sh\n" + body + '\n');
    QFile::setPermissions(path, QFile::permissions(path) | QFile::ExeOwner | QFile::ExeUser);
}

bool waitForState(const PluginUpdater& updater, std::initializer_list<PluginUpdater::State> states,
                  int timeoutMs)
{
    return QTest::qWaitFor(
        [&] { return std::find(states.begin(), states.end(), updater.state()) != states.end(); },
        timeoutMs);
}

UpdaterSandbox::UpdaterSandbox()
{
    writePluginTree(root(), QStringLiteral("1.0.1"));
}

UpdaterConfig UpdaterSandbox::config(const QUrl& manifestUrl) const
{
    UpdaterConfig config;
    config.requestTimeoutMs = 3000;
    config.archiveTimeoutMs = 10000;
    config.manifestUrl = manifestUrl.toString();
    config.currentVersion = QStringLiteral("1.0.1");
    config.obsVersion = QStringLiteral("30.2.3");
    config.downloadPage = QStringLiteral("https://example.com/obs");
    config.stagingFolder = staging();
    config.installFolder = root();
    return config;
}

QByteArray UpdaterSandbox::package(const QString& version) const
{
    const QString source = path(QStringLiteral("build-") + version);
    QDir(source).removeRecursively();
    writePluginTree(source + QStringLiteral("/vantorelle-obs"), version);
    return zipFolder(source);
}

} // namespace vantorelle::test
