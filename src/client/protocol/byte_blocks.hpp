// Sixteen bytes compared at once, with the compiler's portable vector
// types: what lets the terminal-state parser skip text and find the ends of
// control sequences without a test per byte.
#pragma once

#include <cstring>

namespace tovel {

using Block = unsigned char __attribute__((vector_size(16)));
// What comparing blocks gives: each byte all ones where true.
using BlockMask = signed char __attribute__((vector_size(16)));

inline Block loadBlock(const unsigned char* at) {
    Block block;
    std::memcpy(&block, at, sizeof block);
    return block;
}

// A bit per byte of a comparison, the first byte in the lowest bit.
inline unsigned bitsOf(BlockMask mask) {
#if defined(__SSE2__)
    using Bytes = char __attribute__((vector_size(16)));
    return static_cast<unsigned>(__builtin_ia32_pmovmskb128(reinterpret_cast<Bytes>(mask)));
#else
    unsigned bits = 0;
    for (int i = 0; i < 16; ++i)
        bits |= (mask[i] != 0 ? 1u : 0u) << i;
    return bits;
#endif
}

} // namespace tovel
