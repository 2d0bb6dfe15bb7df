// Advisory whole-file locks (flock).
#pragma once

#include "platform/result.hpp"

namespace tovel::sys {

// flock(LOCK_EX | LOCK_NB): WouldBlock when another open file holds it.
[[nodiscard]] Result<> lockExclusiveNonBlocking(int fd);

} // namespace tovel::sys
