#pragma once

#include "sim/http_server.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QUrl>

namespace vantorelle::sim {

// The maker's update service on 127.0.0.1: one manifest at "/manifest.json", its signature at
// "/manifest.json.sig" and package files under "/packages/".
class UpdateServer : public QObject
{
    Q_OBJECT

public:
    explicit UpdateServer(QObject* parent = nullptr);

    // Listens on 127.0.0.1 with a port of the system's choice.
    bool start();

    QUrl manifestUrl() const { return m_http.url(QStringLiteral("/manifest.json")); }
    QUrl packageUrl(const QString& name) const;

    // Signs the manifest it serves, now and from now on, with this PEM private key as the maker
    // does (`openssl dgst -sha256 -sign`, over the exact bytes served). Without a key the
    // signature is not found.
    void setSigningKey(const QString& pemPath);
    // Serves the signature route with any response, until the manifest changes.
    void setSignatureResponse(const HttpResponse& response);
    // The signature `openssl dgst -sha256 -sign` makes of `bytes` with the PEM private key at
    // `pemPath`; empty when that fails.
    static QByteArray sign(const QByteArray& bytes, const QString& pemPath);

    // Serves this manifest from now on.
    void setManifest(const QJsonObject& manifest);
    // Serves the manifest route with any response (broken bodies, errors, delivery faults).
    void setManifestResponse(const HttpResponse& response);
    // Serves `bytes` at packageUrl(name).
    void setPackage(const QString& name, const QByteArray& bytes);
    // Serves the package route with any response.
    void setPackageResponse(const QString& name, const HttpResponse& response);

    // Publishes `bytes` as version `version` for `platformKey`, with their true size and SHA-256,
    // and returns the manifest it now serves (for a test to adjust and set again).
    QJsonObject publish(const QString& version, const QString& platformKey, const QByteArray& bytes,
                        const QString& name = QStringLiteral("package.zip"));

    // A manifest describing `bytes` at `url`.
    static QJsonObject manifestFor(const QString& version, const QString& platformKey,
                                   const QUrl& url, const QByteArray& bytes);

    int manifestRequests() const;
    int signatureRequests() const;
    int packageRequests(const QString& name) const;
    HttpServer& http() { return m_http; }

private:
    void signManifest();

    HttpServer m_http;
    QString m_signingKey;
    QByteArray m_manifestBody;
};

} // namespace vantorelle::sim
