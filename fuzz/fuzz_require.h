#pragma once

#include <cstdlib>

namespace vantorelle::fuzz {

// A property the fuzzed code must keep; breaking it aborts, which the fuzzer reports.
inline void require(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace vantorelle::fuzz
