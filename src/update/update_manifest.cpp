#include "update_manifest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStringList>
#include <QUrl>

#include <limits>

namespace vantorelle {

namespace {

struct ParsedVersion
{
    QList<qulonglong> numbers;
    bool preRelease = false;
};

ParsedVersion splitVersion(const QString& text)
{
    QString rest = text.trimmed();
    if (rest.startsWith(QLatin1Char('v'), Qt::CaseInsensitive))
        rest.remove(0, 1);
    rest = rest.section(QLatin1Char('+'), 0, 0);
    ParsedVersion parsed;
    const qsizetype dash = rest.indexOf(QLatin1Char('-'));
    if (dash >= 0) {
        parsed.preRelease = true;
        rest.truncate(dash);
    }
    const QStringList pieces = rest.split(QLatin1Char('.'));
    for (const QString& piece : pieces) {
        bool ok = false;
        const qulonglong value = piece.toULongLong(&ok, 10);
        parsed.numbers.append(ok ? value : 0);
    }
    return parsed;
}

UpdateManifest failed(UpdateManifest manifest, const QString& text)
{
    manifest.ok = false;
    manifest.failureText = text;
    manifest.package = {};
    return manifest;
}

QString notesText(const QJsonValue& value)
{
    if (value.isString())
        return value.toString();
    QStringList lines;
    const QJsonArray array = value.toArray();
    for (const QJsonValue& line : array) {
        if (line.isString())
            lines.append(line.toString());
    }
    return lines.join(QLatin1Char('\n'));
}

// Sizes come as JSON numbers (doubles); anything that is not a positive count means "unknown".
qint64 packageSize(const QJsonValue& value)
{
    const double size = value.toDouble(0.0);
    if (!(size >= 1.0))
        return 0;
    if (size >= 9.0e18)
        return std::numeric_limits<qint64>::max();
    return qint64(size);
}

bool isSchemaOne(const QJsonValue& schema)
{
    return schema.isUndefined() || (schema.isDouble() && schema.toDouble() == 1.0);
}

UpdateManifest readPackage(UpdateManifest manifest, const QJsonObject& root,
                           const UpdateContext& context)
{
    const QJsonObject package =
        root.value(QLatin1String("packages")).toObject().value(context.platformKey).toObject();
    if (package.isEmpty())
        return failed(manifest,
                      QStringLiteral("Version %1 is out, but not available for this computer yet.")
                          .arg(manifest.version));

    static const QRegularExpression hexDigest(QStringLiteral("\\A[0-9a-f]{64}\\z"));
    manifest.package.url = package.value(QLatin1String("url")).toString();
    manifest.package.sha256 = package.value(QLatin1String("sha256")).toString().toLower();
    manifest.package.size = packageSize(package.value(QLatin1String("size")));
    if (!isAllowedUpdateAddress(manifest.package.url) ||
        !hexDigest.match(manifest.package.sha256).hasMatch())
        return failed(manifest, QStringLiteral("The update information is incomplete."));

    if (!manifest.minObs.isEmpty() && !context.obsVersion.isEmpty() &&
        compareVersions(context.obsVersion, manifest.minObs) < 0)
        return failed(manifest, QStringLiteral("Version %1 needs OBS %2 or newer (this is OBS %3).")
                                    .arg(manifest.version, manifest.minObs, context.obsVersion));
    manifest.ok = true;
    return manifest;
}

} // namespace

int compareVersions(const QString& a, const QString& b)
{
    const ParsedVersion left = splitVersion(a);
    const ParsedVersion right = splitVersion(b);
    const qsizetype count = std::max(left.numbers.size(), right.numbers.size());
    for (qsizetype i = 0; i < count; ++i) {
        const qulonglong l = left.numbers.value(i, 0);
        const qulonglong r = right.numbers.value(i, 0);
        if (l != r)
            return l < r ? -1 : 1;
    }
    if (left.preRelease != right.preRelease)
        return left.preRelease ? -1 : 1;
    return 0;
}

bool isAllowedUpdateAddress(const QString& address)
{
    const QUrl url(address, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return false;
    if (url.scheme() == QLatin1String("https"))
        return true;
    return url.scheme() == QLatin1String("http") &&
           (url.host() == QLatin1String("127.0.0.1") || url.host() == QLatin1String("localhost"));
}

UpdateManifest parseUpdateManifest(const QByteArray& body, const UpdateContext& context)
{
    UpdateManifest manifest;
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return failed(manifest, QStringLiteral("The update information was not readable."));
    const QJsonObject root = document.object();

    if (!isSchemaOne(root.value(QLatin1String("schema"))))
        return failed(manifest, QStringLiteral("This update needs a newer Vantorelle plugin than "
                                               "the one installed. Download the installer from "
                                               "the Vantorelle website."));

    static const QRegularExpression versionRule(
        QStringLiteral("^\\d+\\.\\d+\\.\\d+(-[0-9A-Za-z.]+)?$"));
    const QJsonValue version = root.value(QLatin1String("version"));
    if (!version.isString() || !versionRule.match(version.toString()).hasMatch())
        return failed(manifest, QStringLiteral("The update information has no valid version."));

    manifest.version = version.toString();
    manifest.released = root.value(QLatin1String("released")).toString();
    manifest.minObs = root.value(QLatin1String("min_obs")).toString();
    manifest.notes = notesText(root.value(QLatin1String("notes")));
    manifest.newer = compareVersions(manifest.version, context.currentVersion) > 0;
    if (!manifest.newer) {
        manifest.ok = true;
        return manifest;
    }
    return readPackage(manifest, root, context);
}

} // namespace vantorelle
