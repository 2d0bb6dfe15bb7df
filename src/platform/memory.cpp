// Process memory policy.
#include "platform/memory.hpp"

#include <malloc.h>

namespace tovel::sys {

namespace {

constexpr int kLargeBufferBytes = 131072;

} // namespace

void returnLargeBuffersToSystem() {
    // Fixing the thresholds also stops the allocator from raising them after
    // the first large free, which would keep later large buffers on the heap.
    ::mallopt(M_MMAP_THRESHOLD, kLargeBufferBytes);
    ::mallopt(M_TRIM_THRESHOLD, kLargeBufferBytes);
}

} // namespace tovel::sys
