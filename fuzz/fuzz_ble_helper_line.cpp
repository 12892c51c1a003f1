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
        switch (parsed.kind) {
        case HelperLine::Kind::Answer:
            require(parsed.id > 0);
            break;
        case HelperLine::Kind::Event:
            require(!parsed.event.isEmpty() && parsed.id == 0);
            break;
        case HelperLine::Kind::Invalid:
            require(parsed.id == 0);
            break;
        }
    }
    return 0;
}
