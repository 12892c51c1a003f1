#pragma once

#include <QByteArray>

#include <cstdio>
#include <cstdlib>

namespace vantorelle::fuzz {

// A property the fuzzed code must keep; breaking it aborts, which the fuzzer reports, after
// naming the line of the property.
inline void require(bool condition, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE())
{
    if (condition)
        return;
    std::fprintf(stderr, "property broken at %s:%d\n", file, line);
    std::abort();
}

// True when `value` can go out as an HTTP header value as it is: no control bytes that would end
// the header line or the request.
inline bool headerSafe(const QByteArray& value)
{
    for (const char c : value) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return false;
    }
    return true;
}

} // namespace vantorelle::fuzz
