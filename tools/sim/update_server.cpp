#include "update_server.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QProcess>

namespace vantorelle::sim {

namespace {

const QString ManifestPath = QStringLiteral("/manifest.json");
const QString SignaturePath = QStringLiteral("/manifest.json.sig");

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
    m_manifestBody = response.body;
    signManifest();
}

void UpdateServer::setSigningKey(const QString& pemPath)
{
    m_signingKey = pemPath;
    signManifest();
}

void UpdateServer::signManifest()
{
    if (m_signingKey.isEmpty())
        setSignatureResponse(HttpResponse::text("not signed", 404));
    else
        setSignatureResponse(HttpResponse::text(sign(m_manifestBody, m_signingKey), 200,
                                                "application/octet-stream"));
}

void UpdateServer::setSignatureResponse(const HttpResponse& response)
{
    m_http.route("GET", SignaturePath, [response](const HttpRequest&) { return response; });
}

QByteArray UpdateServer::sign(const QByteArray& bytes, const QString& pemPath)
{
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"), {QStringLiteral("dgst"), QStringLiteral("-sha256"),
                                              QStringLiteral("-sign"), pemPath});
    openssl.write(bytes);
    openssl.closeWriteChannel();
    if (!openssl.waitForFinished(10000) || openssl.exitStatus() != QProcess::NormalExit ||
        openssl.exitCode() != 0) {
        qWarning("openssl could not sign with %s", qPrintable(pemPath));
        return {};
    }
    return openssl.readAllStandardOutput();
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

int UpdateServer::signatureRequests() const
{
    return m_http.requestCount("GET", SignaturePath);
}

int UpdateServer::packageRequests(const QString& name) const
{
    return m_http.requestCount("GET", packagePath(name));
}

} // namespace vantorelle::sim
