// Feed the update journal as a start-up reads it after a crash. A journal that is accepted names
// only paths inside the plug-in folder (so undoing it can touch nothing else) and a progress
// within its entries, and writing it again reads back as the same plan.
#include "fuzz_require.h"
#include "swap_journal.h"

#include <cstdint>

using vantorelle::fuzz::require;

namespace {

bool inside(const QString& path)
{
    return !path.isEmpty() && !path.startsWith(u'/') && !path.contains(u'\\') &&
           !path.contains(u':') && !path.split(u'/').contains(QStringLiteral("..")) &&
           !path.split(u'/').contains(QString());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArrayView bytes(data, qsizetype(size));
    const std::optional<vantorelle::SwapPlan> plan = vantorelle::parseJournal(bytes);
    if (!plan)
        return 0;
    for (const vantorelle::SwapPlan::Entry& entry : plan->entries)
        require(inside(entry.path) && (entry.sha256.isEmpty() || entry.sha256.size() == 64));
    for (const QString& folder : plan->createdFolders)
        require(inside(folder));
    require(plan->done >= 0 && plan->done <= plan->entries.size());

    const QByteArray written = vantorelle::journalBytes(*plan);
    const std::optional<vantorelle::SwapPlan> again = vantorelle::parseJournal(written);
    require(again.has_value());
    require(vantorelle::journalBytes(*again) == written);
    return 0;
}
