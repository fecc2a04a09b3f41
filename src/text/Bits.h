// Bit counting for the text kernels' 16-byte compare masks.
#pragma once

#include <cstddef>

namespace ZOTH::text {

// The set bits of a 16-bit mask, in plain arithmetic: std::popcount is a library call on an x86-64
// without the POPCNT instruction, the baseline this library is built for.
inline size_t BitsOf16(unsigned int v) {
    v = v - ((v >> 1) & 0x5555);
    v = (v & 0x3333) + ((v >> 2) & 0x3333);
    v = (v + (v >> 4)) & 0x0F0F;
    return (v + (v >> 8)) & 0x1F;
}

} // namespace ZOTH::text
