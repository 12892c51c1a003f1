#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QString>

namespace vantorelle {

// Update manifests are signed with ECDSA P-256 over SHA-256: the DER signature, as
// `openssl dgst -sha256 -sign` writes it, of the manifest's exact bytes, served beside it.
enum class SignatureCheck
{
    Verified,
    // Not a strict DER ECDSA signature: cut short, padded, or not one at all.
    Malformed,
    // None of the accepted keys is a PEM public key on P-256.
    NoUsableKey,
    // Made with none of the accepted keys, or over other bytes.
    Mismatch
};

// Whether `signature` is a signature of `manifest` by one of `publicKeysPem`.
SignatureCheck verifyManifestSignature(QByteArrayView manifest, QByteArrayView signature,
                                       const QList<QByteArray>& publicKeysPem);

// The public key this build accepts (VANTORELLE_UPDATE_PUBLIC_KEY when it was configured), PEM.
QByteArray builtInUpdatePublicKey();

// Development builds (see addressOverride()) also accept the PEM public key in the file that
// VANTORELLE_UPDATE_KEY names, so that a test service can sign with its own key. Empty in a
// release build, without the variable, or when the file is missing, unreadable or larger than
// any key file (16 KiB); the last is logged.
QByteArray developmentUpdateKey();

} // namespace vantorelle
