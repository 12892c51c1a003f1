#include "update_server.h"

#include <QCryptographicHash>
#include <QJsonArray>

namespace vantorelle::sim {

namespace {

const QString ManifestPath = QStringLiteral("/manifest.json");

QString packagePath(const QString& name)
{
    return QStringLiteral("/packages/") + name;
}

} // namespace

UpdateServer::UpdateServer(QObject* parent) : QObject(parent) {}

bool UpdateServer::start()
{
    return m_http.listen();
}

QUrl UpdateServer::packageUrl(const QString& name) const
{
    return m_http.url(packagePath(name));
}

void UpdateServer::setManifest(const QJsonObject& manifest)
{
    setManifestResponse(HttpResponse::json(manifest));
}

void UpdateServer::setManifestResponse(const HttpResponse& response)
{
    m_http.route("GET", ManifestPath, [response](const HttpRequest&) { return response; });
}

void UpdateServer::setPackage(const QString& name, const QByteArray& bytes)
{
    setPackageResponse(name, HttpResponse::text(bytes, 200, "application/zip"));
}

void UpdateServer::setPackageResponse(const QString& name, const HttpResponse& response)
{
    m_http.route("GET", packagePath(name), [response](const HttpRequest&) { return response; });
}

QJsonObject UpdateServer::publish(const QString& version, const QString& platformKey,
                                  const QByteArray& bytes, const QString& name)
{
    setPackage(name, bytes);
    const QJsonObject manifest = manifestFor(version, platformKey, packageUrl(name), bytes);
    setManifest(manifest);
    return manifest;
}

QJsonObject UpdateServer::manifestFor(const QString& version, const QString& platformKey,
                                      const QUrl& url, const QByteArray& bytes)
{
    const QByteArray digest = QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
    const QJsonObject package{{QStringLiteral("url"), url.toString()},
                              {QStringLiteral("sha256"), QString::fromLatin1(digest)},
                              {QStringLiteral("size"), double(bytes.size())}};
    return {{QStringLiteral("schema"), 1},
            {QStringLiteral("version"), version},
            {QStringLiteral("released"), QStringLiteral("2025-01-01")},
            {QStringLiteral("notes"), QJsonArray{QStringLiteral("Fixes and improvements.")}},
            {QStringLiteral("packages"), QJsonObject{{platformKey, package}}}};
}

int UpdateServer::manifestRequests() const
{
    return m_http.requestCount("GET", ManifestPath);
}

int UpdateServer::packageRequests(const QString& name) const
{
    return m_http.requestCount("GET", packagePath(name));
}

} // namespace vantorelle::sim
