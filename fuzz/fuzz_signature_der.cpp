// The signature beside the update manifest comes from the network and is parsed before any key
// sees it (and on Windows turned into the r||s that CNG verifies). Whatever it accepts must be
// strict DER: encoding its r||s again gives back exactly the input, and that encoding converts to
// the same r||s.
#include "fuzz_require.h"
#include "signature_backend.h"

#include <cstdint>
#include <vector>

using vantorelle::fuzz::require;
using vantorelle::signature::derToRaw;
using vantorelle::signature::RawSignature;

namespace {

// One 32-byte half as a minimal positive DER INTEGER.
void appendInteger(std::vector<std::uint8_t>& der, const std::uint8_t* half)
{
    int skip = 0;
    while (skip < 31 && half[skip] == 0)
        ++skip;
    const bool pad = half[skip] & 0x80;
    der.push_back(0x02);
    der.push_back(std::uint8_t(32 - skip + (pad ? 1 : 0)));
    if (pad)
        der.push_back(0);
    der.insert(der.end(), half + skip, half + 32);
}

std::vector<std::uint8_t> encode(const RawSignature& raw)
{
    std::vector<std::uint8_t> integers;
    appendInteger(integers, raw.data());
    appendInteger(integers, raw.data() + 32);
    std::vector<std::uint8_t> der{0x30, std::uint8_t(integers.size())};
    der.insert(der.end(), integers.begin(), integers.end());
    return der;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto raw = derToRaw({data, size});
    if (!raw)
        return 0;
    require(raw->size() == 64 && size <= 72);
    const std::vector<std::uint8_t> again = encode(*raw);
    require(again == std::vector<std::uint8_t>(data, data + size));
    const auto back = derToRaw(again);
    require(back && *back == *raw);
    return 0;
}
