#pragma once

// ECDSA P-256 with SHA-256, as update manifests are signed. Plain C++ below the Qt layer, so that
// each platform's backend (libcrypto here, CNG on Windows) builds on its own.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vantorelle::signature {

using Bytes = std::span<const std::uint8_t>;
using RawSignature = std::array<std::uint8_t, 64>;

enum class Verdict
{
    Valid,
    Invalid,
    // Not a PEM SubjectPublicKeyInfo of an EC key on P-256.
    UnusableKey
};

// The DER ECDSA-Sig-Value (a SEQUENCE of the INTEGERs r and s) as the raw r||s, each big-endian
// and left-padded to 32 bytes, which is what CNG verifies. Only strict DER is accepted: short
// lengths, minimal positive integers of 1 to 32 value bytes, nothing before or after; nullopt
// otherwise.
std::optional<RawSignature> derToRaw(Bytes der);

// Verifies the DER `signature` of `message` with `publicKeyPem`. The platform's backend.
Verdict verifyP256Sha256(Bytes message, Bytes signature, std::string_view publicKeyPem);

} // namespace vantorelle::signature
