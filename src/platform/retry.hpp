// Retrying a C library call that a signal interrupted (EINTR): the one loop
// every wrapper in this folder that retries goes through.
#pragma once

#include <cerrno>

namespace tovel::sys {

// Calls `call` until it succeeds or fails with anything but EINTR, and
// returns what the last call returned. A negative value is a failure, its
// reason left in errno. Nothing but the call itself runs, so a forked child
// may use it.
template <typename Call> auto retryOnInterrupt(Call call) {
    for (;;) {
        auto value = call();
        if (value >= 0 || errno != EINTR)
            return value;
    }
}

} // namespace tovel::sys
