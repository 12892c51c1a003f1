#include "manifest_signature.h"

#include "address_override.h"
#include "log.h"
#include "signature_backend.h"
#include "update_public_key.h"

#include <QFile>

#include <string_view>

namespace vantorelle {

namespace {

constexpr qint64 MaxKeyFileBytes = 16 * 1024;

signature::Bytes bytes(QByteArrayView view)
{
    return {reinterpret_cast<const std::uint8_t*>(view.data()), std::size_t(view.size())};
}

} // namespace

SignatureCheck verifyManifestSignature(QByteArrayView manifest, QByteArrayView signature,
                                       const QList<QByteArray>& publicKeysPem)
{
    // Both backends take the same strict form, so that a signature accepted on one platform is
    // accepted on the other.
    if (!signature::derToRaw(bytes(signature)))
        return SignatureCheck::Malformed;
    SignatureCheck result = SignatureCheck::NoUsableKey;
    for (const QByteArray& key : publicKeysPem) {
        switch (signature::verifyP256Sha256(bytes(manifest), bytes(signature),
                                            std::string_view(key.data(), key.size()))) {
        case signature::Verdict::Valid:
            return SignatureCheck::Verified;
        case signature::Verdict::Invalid:
            result = SignatureCheck::Mismatch;
            break;
        case signature::Verdict::UnusableKey:
            break;
        }
    }
    return result;
}

QByteArray builtInUpdatePublicKey()
{
    return QByteArray(UpdatePublicKeyPem);
}

QByteArray developmentUpdateKey()
{
    const QString path = addressOverride("VANTORELLE_UPDATE_KEY");
    if (path.isEmpty())
        return {};
    QFile file(path);
    QByteArray pem;
    if (file.open(QIODevice::ReadOnly))
        pem = file.read(MaxKeyFileBytes + 1);
    if (pem.isEmpty() || pem.size() > MaxKeyFileBytes) {
        logLine(LogLevel::Warning,
                QStringLiteral("[vantorelle] no update key read from %1").arg(path));
        return {};
    }
    return pem;
}

} // namespace vantorelle
