#include "signature_backend.h"

#include <algorithm>

namespace vantorelle::signature {

namespace {

constexpr std::uint8_t SequenceTag = 0x30;
constexpr std::uint8_t IntegerTag = 0x02;
constexpr std::size_t HalfSize = 32;

// Reads one INTEGER at `der[at]` into `half` (right-aligned) and moves `at` past it. A 32-byte
// value with its top bit set carries one leading zero byte, so 33 bytes is the most.
bool readInteger(Bytes der, std::size_t& at, std::uint8_t* half)
{
    if (der.size() - at < 2 || der[at] != IntegerTag)
        return false;
    std::size_t length = der[at + 1];
    at += 2;
    if (length == 0 || length > HalfSize + 1 || length > der.size() - at)
        return false;
    Bytes value = der.subspan(at, length);
    at += length;
    if (value[0] & 0x80) // negative
        return false;
    if (value[0] == 0) {
        // The zero byte is only there to keep a high top bit positive; anything else is not
        // minimal, and r and s are never zero.
        if (length == 1 || !(value[1] & 0x80))
            return false;
        value = value.subspan(1);
    }
    if (value.size() > HalfSize)
        return false;
    std::copy(value.begin(), value.end(), half + (HalfSize - value.size()));
    return true;
}

} // namespace

std::optional<RawSignature> derToRaw(Bytes der)
{
    // Both integers fit in 2 + 33 bytes, so the sequence length is a single short-form byte;
    // a long form would not be DER.
    if (der.size() < 2 || der[0] != SequenceTag || der[1] >= 0x80 ||
        std::size_t(der[1]) != der.size() - 2)
        return std::nullopt;
    RawSignature raw{};
    std::size_t at = 2;
    if (!readInteger(der, at, raw.data()) || !readInteger(der, at, raw.data() + HalfSize) ||
        at != der.size())
        return std::nullopt;
    return raw;
}

} // namespace vantorelle::signature
