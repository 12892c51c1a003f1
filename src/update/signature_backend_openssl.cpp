// libcrypto backend of the signature check: the same OpenSSL 3 that Qt's TLS already loads.

#include "signature_backend.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include <climits>
#include <memory>

namespace vantorelle::signature {

namespace {

struct Release
{
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
template <typename T> using Owned = std::unique_ptr<T, Release>;

bool isP256(EVP_PKEY* key)
{
    if (EVP_PKEY_get_base_id(key) != EVP_PKEY_EC)
        return false;
    char group[80] = {};
    size_t length = 0;
    return EVP_PKEY_get_group_name(key, group, sizeof group, &length) == 1 &&
           OBJ_sn2nid(group) == NID_X9_62_prime256v1;
}

Verdict verify(Bytes message, Bytes signature, std::string_view publicKeyPem)
{
    if (publicKeyPem.size() > INT_MAX)
        return Verdict::UnusableKey;
    const Owned<BIO> bio(BIO_new_mem_buf(publicKeyPem.data(), int(publicKeyPem.size())));
    const Owned<EVP_PKEY> key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr)
                                  : nullptr);
    if (!key || !isP256(key.get()))
        return Verdict::UnusableKey;
    const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    const bool valid =
        context &&
        EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
        EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                         message.size()) == 1;
    return valid ? Verdict::Valid : Verdict::Invalid;
}

} // namespace

Verdict verifyP256Sha256(Bytes message, Bytes signature, std::string_view publicKeyPem)
{
    const Verdict verdict = verify(message, signature, publicKeyPem);
    // Qt's TLS reads this thread's error queue too: leave nothing of a refused key or signature.
    ERR_clear_error();
    return verdict;
}

} // namespace vantorelle::signature
