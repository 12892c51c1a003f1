#include "swap_journal.h"

#include "atomic_file.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace vantorelle {

namespace {

// A path the journal may name inside the plug-in folder: relative, no "." or ".." step, no
// empty step, no drive or backslash.
bool isInsidePath(const QString& path)
{
    if (path.isEmpty() || path.startsWith(u'/') || path.contains(u'\\') || path.contains(u':'))
        return false;
    const QStringList steps = path.split(u'/');
    return std::none_of(steps.cbegin(), steps.cend(), [](const QString& step) {
        return step.isEmpty() || step == QLatin1String(".") || step == QLatin1String("..");
    });
}

bool isDigest(const QString& text)
{
    static const QRegularExpression hex(QStringLiteral("\\A[0-9a-f]{64}\\z"));
    return text.isEmpty() || hex.match(text).hasMatch();
}

} // namespace

QByteArray journalBytes(const SwapPlan& plan)
{
    QJsonObject root;
    root[QLatin1String("way")] =
        plan.way == SwapPlan::Way::Folder ? QStringLiteral("folder") : QStringLiteral("files");
    root[QLatin1String("backup")] = plan.backup;
    QJsonArray entries;
    for (const SwapPlan::Entry& entry : plan.entries) {
        entries.append(QJsonObject{{QStringLiteral("path"), entry.path},
                                   {QStringLiteral("sha256"), QString::fromLatin1(entry.sha256)},
                                   {QStringLiteral("replaces"), entry.replaces}});
    }
    root[QLatin1String("entries")] = entries;
    root[QLatin1String("created_folders")] = QJsonArray::fromStringList(plan.createdFolders);
    root[QLatin1String("done")] = plan.done;
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

std::optional<SwapPlan> parseJournal(QByteArrayView bytes)
{
    if (bytes.size() > MaxJournalBytes)
        return std::nullopt;
    const QJsonObject root = QJsonDocument::fromJson(bytes.toByteArray()).object();
    const QString way = root.value(QLatin1String("way")).toString();
    if (way != QLatin1String("folder") && way != QLatin1String("files"))
        return std::nullopt;
    SwapPlan plan;
    plan.way = way == QLatin1String("folder") ? SwapPlan::Way::Folder : SwapPlan::Way::Files;
    plan.backup = root.value(QLatin1String("backup")).toString();
    if (plan.way == SwapPlan::Way::Folder && !QDir::isAbsolutePath(plan.backup))
        return std::nullopt;
    for (const QJsonValue& value : root.value(QLatin1String("entries")).toArray()) {
        const QJsonObject entry = value.toObject();
        const QString path = entry.value(QLatin1String("path")).toString();
        const QString digest = entry.value(QLatin1String("sha256")).toString();
        if (!isInsidePath(path) || !isDigest(digest))
            return std::nullopt;
        plan.entries.append(
            {path, digest.toLatin1(), entry.value(QLatin1String("replaces")).toBool()});
    }
    for (const QJsonValue& value : root.value(QLatin1String("created_folders")).toArray()) {
        if (!isInsidePath(value.toString()))
            return std::nullopt;
        plan.createdFolders.append(value.toString());
    }
    plan.done = root.value(QLatin1String("done")).toInt();
    if (plan.done < 0 || plan.done > plan.entries.size())
        return std::nullopt;
    return plan;
}

bool writeJournal(const QString& path, const SwapPlan& plan)
{
    // Owner-only, like the settings: it names the plug-in's files.
    return saveFileAtomically(path, journalBytes(plan));
}

} // namespace vantorelle
