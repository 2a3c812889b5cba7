// The virtual devices' deterministic noise: a 32-bit integer hash, so that a
// seed and a position always give the same value.
#pragma once

#include <cstdint>

namespace vbridge {

inline uint32_t mix(uint32_t x)
{
    x ^= x >> 16;
    x *= 0x7feb352du;
    x ^= x >> 15;
    x *= 0x846ca68bu;
    x ^= x >> 16;
    return x;
}

} // namespace vbridge
