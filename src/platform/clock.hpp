// Clocks and sleeping.
#pragma once

#include "platform/result.hpp"

#include <cstdint>

namespace tovel::sys {

// Monotonic clock in milliseconds.
[[nodiscard]] std::int64_t monotonicMs();
// Monotonic clock in nanoseconds.
[[nodiscard]] std::int64_t monotonicNs();
// Wall clock: whole seconds since the Unix epoch.
[[nodiscard]] std::int64_t realtimeSeconds();
// Sleeps the whole duration, resuming after signals.
[[nodiscard]] Result<> sleepMs(std::int64_t milliseconds);

} // namespace tovel::sys
