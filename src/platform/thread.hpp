// Detached POSIX threads with a chosen stack size.
#pragma once

#include "platform/result.hpp"

#include <cstddef>

namespace tovel::sys {

using ThreadEntry = void (*)(void* argument);

// Starts `entry(argument)` on a detached thread whose stack is `stackSize`
// bytes with a guard area of one page. SystemResources when the system
// refuses (EAGAIN), Unexpected otherwise.
[[nodiscard]] Result<> startDetachedThread(ThreadEntry entry, void* argument,
                                           std::size_t stackSize);

} // namespace tovel::sys
