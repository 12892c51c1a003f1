// Windows backend of the signature check: CNG, which takes the signature as raw r||s.

#include "signature_backend.h"

#include <windows.h>

#include <bcrypt.h>
#include <wincrypt.h>

#include <cstring>
#include <vector>

namespace vantorelle::signature {

namespace {

// The algorithm parameters of an EC public key on P-256: the DER OID 1.2.840.10045.3.1.7.
constexpr BYTE P256Parameters[] = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
constexpr ULONG DigestSize = 32;

bool succeeded(NTSTATUS status)
{
    return status >= 0;
}

bool sha256(Bytes message, UCHAR* digest)
{
    if (message.size() > ULONG(-1))
        return false;
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    if (!succeeded(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0)))
        return false;
    BCRYPT_HASH_HANDLE hash = nullptr;
    bool ok = succeeded(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0));
    ok = ok &&
         succeeded(
             BCryptHashData(hash, const_cast<PUCHAR>(message.data()), ULONG(message.size()), 0)) &&
         succeeded(BCryptFinishHash(hash, digest, DigestSize, 0));
    if (hash)
        BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return ok;
}

// The key of a PEM SubjectPublicKeyInfo, when it is an EC key on P-256; null otherwise.
BCRYPT_KEY_HANDLE importKey(std::string_view pem)
{
    DWORD size = 0;
    if (pem.size() > DWORD(-1) ||
        !CryptStringToBinaryA(pem.data(), DWORD(pem.size()), CRYPT_STRING_BASE64HEADER, nullptr,
                              &size, nullptr, nullptr))
        return nullptr;
    std::vector<BYTE> der(size);
    if (!CryptStringToBinaryA(pem.data(), DWORD(pem.size()), CRYPT_STRING_BASE64HEADER, der.data(),
                              &size, nullptr, nullptr))
        return nullptr;
    CERT_PUBLIC_KEY_INFO* info = nullptr;
    DWORD infoSize = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, der.data(), size,
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, &info, &infoSize))
        return nullptr;
    const CRYPT_ALGORITHM_IDENTIFIER& algorithm = info->Algorithm;
    const bool p256 =
        algorithm.pszObjId && std::strcmp(algorithm.pszObjId, szOID_ECC_PUBLIC_KEY) == 0 &&
        algorithm.Parameters.cbData == sizeof P256Parameters &&
        std::memcmp(algorithm.Parameters.pbData, P256Parameters, sizeof P256Parameters) == 0;
    BCRYPT_KEY_HANDLE key = nullptr;
    if (p256 && !CryptImportPublicKeyInfoEx2(X509_ASN_ENCODING, info, 0, nullptr, &key))
        key = nullptr;
    LocalFree(info);
    return key;
}

} // namespace

Verdict verifyP256Sha256(Bytes message, Bytes signature, std::string_view publicKeyPem)
{
    const BCRYPT_KEY_HANDLE key = importKey(publicKeyPem);
    if (!key)
        return Verdict::UnusableKey;
    std::optional<RawSignature> raw = derToRaw(signature);
    UCHAR digest[DigestSize] = {};
    const bool valid = raw && sha256(message, digest) &&
                       succeeded(BCryptVerifySignature(key, nullptr, digest, DigestSize,
                                                       raw->data(), ULONG(raw->size()), 0));
    BCryptDestroyKey(key);
    return valid ? Verdict::Valid : Verdict::Invalid;
}

} // namespace vantorelle::signature
