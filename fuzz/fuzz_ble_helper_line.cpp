// Feed the lines the Bluetooth helper writes: each one is taken apart without a crash, and the
// parts agree with the line (answers name a positive id, events an event name).
#include "ble_helper_bridge.h"
#include "fuzz_require.h"

#include <cstdint>

using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using vantorelle::HelperLine;
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    for (const QByteArray& line : input.split('\n')) {
        const HelperLine parsed = vantorelle::parseHelperLine(line);
        if (parsed.kind == HelperLine::Kind::Answer)
            require(parsed.id > 0);
        else
            require(parsed.id == 0 &&
                    (parsed.kind == HelperLine::Kind::Invalid || !parsed.event.isEmpty()));
    }
    return 0;
}
