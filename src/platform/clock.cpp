// Clock readings and sleeping.
#include "platform/clock.hpp"

#include "platform/retry.hpp"

#include <cerrno>
#include <ctime>

namespace tovel::sys {

namespace {

timespec now(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return ts;
}

} // namespace

std::int64_t monotonicMs() {
    return monotonicNs() / 1'000'000;
}

std::int64_t monotonicNs() {
    timespec ts = now(CLOCK_MONOTONIC);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

std::int64_t realtimeSeconds() {
    return now(CLOCK_REALTIME).tv_sec;
}

Result<> sleepMs(std::int64_t milliseconds) {
    timespec remaining{static_cast<time_t>(milliseconds / 1000),
                       static_cast<long>((milliseconds % 1000) * 1'000'000)};
    // An interrupted sleep leaves the time still to go in `remaining`.
    if (retryOnInterrupt([&] { return ::nanosleep(&remaining, &remaining); }) < 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace tovel::sys
