#include "archive_listing.h"

#include <QByteArrayList>

#include <algorithm>
#include <cctype>

namespace vantorelle {

namespace {

ListingCheck refused(const QString& text)
{
    return {false, text};
}

QString notUnpackable()
{
    return QStringLiteral("The update could not be unpacked. Nothing was changed.");
}

// The lines of a listing; false when the last one is unfinished (the tool stopped mid-way).
// A carriage return before the newline is the line end of a Windows console program: the tool
// escapes one inside a name.
bool splitLines(const QByteArray& listing, QByteArrayList* lines)
{
    if (!listing.isEmpty() && !listing.endsWith('\n'))
        return false;
    *lines = listing.split('\n');
    lines->removeLast();
    for (QByteArray& line : *lines) {
        if (line.endsWith('\r'))
            line.chop(1);
    }
    return true;
}

bool isOctal(char c)
{
    return c >= '0' && c <= '7';
}

// Absolute on any system the package may be unpacked on, or climbing out with "..". Windows
// drops trailing dots and spaces from a name, so "... " climbs there too.
bool isUnsafePath(const QByteArray& name)
{
    if (name.startsWith('/') || name.startsWith('\\'))
        return true;
    if (name.size() >= 2 && name[1] == ':' && std::isalpha(static_cast<unsigned char>(name[0])))
        return true;
    QByteArray step;
    for (qsizetype i = 0; i <= name.size(); ++i) {
        const char c = i < name.size() ? name[i] : '/';
        if (c != '/' && c != '\\') {
            step += c;
            continue;
        }
        if (step.startsWith("..") &&
            std::all_of(step.cbegin(), step.cend(), [](char s) { return s == '.' || s == ' '; }))
            return true;
        step.clear();
    }
    return false;
}

} // namespace

QString tooLargeToUnpackText()
{
    return QStringLiteral("The update package was too large to unpack. Nothing was changed.");
}

bool unescapeListedName(const QByteArray& listed, QByteArray* name)
{
    name->clear();
    for (qsizetype i = 0; i < listed.size(); ++i) {
        if (listed[i] != '\\') {
            *name += listed[i];
            continue;
        }
        if (++i == listed.size())
            return false;
        static const QByteArray letters = "\\abfnrtv";
        static const QByteArray bytes = "\\\a\b\f\n\r\t\v";
        if (const qsizetype at = letters.indexOf(listed[i]); at >= 0) {
            *name += bytes[at];
        } else if (i + 2 < listed.size() && listed[i] <= '3' && isOctal(listed[i]) &&
                   isOctal(listed[i + 1]) && isOctal(listed[i + 2])) {
            *name +=
                char((listed[i] - '0') << 6 | (listed[i + 1] - '0') << 3 | (listed[i + 2] - '0'));
            i += 2;
        } else {
            return false;
        }
    }
    return true;
}

ListingCheck checkArchiveListing(const QByteArray& names, const QByteArray& details,
                                 const ArchiveLimits& limits)
{
    QByteArrayList nameLines, detailLines;
    if (!splitLines(names, &nameLines) || !splitLines(details, &detailLines) ||
        nameLines.size() != detailLines.size())
        return refused(notUnpackable());
    if (nameLines.size() > limits.maxEntries)
        return refused(tooLargeToUnpackText());

    QByteArray name;
    for (const QByteArray& line : std::as_const(nameLines)) {
        if (!unescapeListedName(line, &name))
            return refused(notUnpackable());
        if (isUnsafePath(name))
            return refused(QStringLiteral("The update package contained an unsafe path, so it was "
                                          "rejected. Nothing was changed."));
    }

    qint64 total = 0;
    for (const QByteArray& line : std::as_const(detailLines)) {
        // Mode, links, owner, group and size lead every line; the date after them is written
        // in the user's language, and the name comes from the plain listing.
        const QByteArrayList fields = line.simplified().split(' ');
        if (fields.size() < 5 || line[0] != fields[0][0])
            return refused(notUnpackable());
        switch (line[0]) {
        case '-':
            break;
        case 'd':
            continue;
        case 'l':
        case 'h':
            return refused(QStringLiteral("The update package contained an unexpected link, so "
                                          "it was rejected. Nothing was changed."));
        default: // devices, pipes and sockets have no place in a plug-in
            return refused(QStringLiteral(
                "The update package was not in the expected shape. Nothing was changed."));
        }
        bool number = false;
        const qint64 size = fields[4].toLongLong(&number);
        if (!number || size < 0 || !std::isdigit(static_cast<unsigned char>(fields[4][0])))
            return refused(notUnpackable());
        if (size > limits.maxUnpackedBytes - total)
            return refused(tooLargeToUnpackText());
        total += size;
    }
    return {true, {}};
}

} // namespace vantorelle
