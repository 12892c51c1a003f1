#pragma once

#include <QByteArray>
#include <QString>

namespace vantorelle {

// What an update package may hold once unpacked.
struct ArchiveLimits
{
    qsizetype maxEntries = 0;
    qint64 maxUnpackedBytes = 0;
};

// The verdict on an archive's listing; `failureText` is the sentence to show when not `ok`.
struct ListingCheck
{
    bool ok = false;
    QString failureText;
};

// Checks the archive tool's two listings of one archive before anything is unpacked: `names`
// from "-t" (one name a line, escaped by the tool) and `details` from "-t -v --numeric-owner"
// (one entry a line, starting with its mode, link count, owner, group and size). Refuses more
// entries or bytes than `limits` allow, absolute names (leading "/", "\" or a drive letter), a
// ".." step with either separator, links of both kinds, entries that are neither file nor
// folder, and listings that do not read as the tool writes them.
ListingCheck checkArchiveListing(const QByteArray& names, const QByteArray& details,
                                 const ArchiveLimits& limits);

// The name the tool listed as `listed` ("\\", "\n" and the like, and "\ooo" octal escapes);
// false when `listed` holds an escape the tool does not write.
bool unescapeListedName(const QByteArray& listed, QByteArray* name);

// The refusal for an archive holding more than the limits allow.
QString tooLargeToUnpackText();

} // namespace vantorelle
