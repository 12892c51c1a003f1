// The archive tool's listings of a downloaded package: the names ("-t") and, after a NUL byte, the
// details ("-t -v --numeric-owner"). Checking them must never crash; a listing it accepts has at
// most the entry cap, no name that is absolute or climbs with "..", only files and folders, and
// sizes within the byte cap. Any bytes, escaped the way the tool escapes them, read back the same.
#include "archive_listing.h"
#include "fuzz_require.h"

#include <QByteArrayList>
#include <QRegularExpression>

#include <cstdint>

using vantorelle::fuzz::require;

namespace {

constexpr qsizetype MaxEntries = 12;
constexpr qint64 MaxBytes = 1000;

// The tool's escaping: printable ASCII but the backslash as it is, the usual letters for
// control characters, three octal digits for the rest.
QByteArray escaped(const QByteArray& raw)
{
    QByteArray out;
    for (const char c : raw) {
        const auto u = static_cast<unsigned char>(c);
        const char* letter = c == '\\'   ? "\\\\"
                             : c == '\n' ? "\\n"
                             : c == '\t' ? "\\t"
                             : c == '\r' ? "\\r"
                             : c == '\a' ? "\\a"
                             : c == '\b' ? "\\b"
                             : c == '\f' ? "\\f"
                             : c == '\v' ? "\\v"
                                         : nullptr;
        if (letter)
            out += letter;
        else if (u >= 0x20 && u < 0x7f)
            out += c;
        else
            out += '\\' + QByteArray::number(u, 8).rightJustified(3, '0');
    }
    return out;
}

// Read independently of the checker: the name with every escape turned back into its byte, or
// null when an escape is not one the tool writes.
QByteArray decoded(const QByteArray& listed)
{
    static const QRegularExpression escape(R"(\\([0-3][0-7]{2}|[\\abfnrtv]|[\s\S]?))");
    QByteArray out = "";
    qsizetype from = 0;
    for (auto it = escape.globalMatch(QString::fromLatin1(listed)); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        out += listed.mid(from, m.capturedStart() - from);
        const QString code = m.captured(1);
        if (code.size() == 3)
            out += char(code.toInt(nullptr, 8));
        else if (code.size() == 1 && QStringLiteral("\\abfnrtv").contains(code))
            out += "\\\a\b\f\n\r\t\v"[QStringLiteral("\\abfnrtv").indexOf(code)];
        else
            return {};
        from = m.capturedEnd();
    }
    return out + listed.mid(from);
}

bool absoluteOrClimbing(const QByteArray& name)
{
    static const QRegularExpression unsafe(R"(^([/\\]|[A-Za-z]:)|(^|[/\\])\.\.[. ]*([/\\]|$))");
    return unsafe.match(QString::fromLatin1(name)).hasMatch();
}

QByteArrayList lines(QByteArray listing)
{
    listing.replace("\r\n", "\n");
    QByteArrayList out = listing.split('\n');
    out.removeLast();
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), qsizetype(size));
    const qsizetype split = input.indexOf('\0');
    const QByteArray names = split < 0 ? input : input.left(split);
    const QByteArray details = split < 0 ? QByteArray() : input.mid(split + 1);

    const vantorelle::ListingCheck check =
        vantorelle::checkArchiveListing(names, details, {MaxEntries, MaxBytes});
    require(check.ok == check.failureText.isEmpty());
    if (check.ok) {
        const QByteArrayList nameLines = lines(names), detailLines = lines(details);
        require(nameLines.size() <= MaxEntries && nameLines.size() == detailLines.size());
        for (const QByteArray& line : nameLines) {
            const QByteArray name = decoded(line);
            require(!name.isNull() && !absoluteOrClimbing(name));
        }
        qint64 total = 0;
        for (const QByteArray& line : detailLines) {
            const QByteArrayList fields = line.simplified().split(' ');
            require(fields.size() >= 5 && (line.startsWith('-') || line.startsWith('d')));
            total += line.startsWith('-') ? fields[4].toLongLong() : 0;
        }
        require(total <= MaxBytes);
    }

    // Escaping and reading back, with the input's first line as the name.
    const QByteArray raw = input.left(input.indexOf('\n'));
    QByteArray back;
    require(vantorelle::unescapeListedName(escaped(raw), &back) && back == raw);
    return 0;
}
