// getrandom, looping until the buffer is full.
#include "platform/random.hpp"

#include "platform/retry.hpp"

#include <cerrno>
#include <sys/random.h>

namespace tovel::sys {

Result<> randomBytes(std::span<std::byte> out) {
    while (!out.empty()) {
        ssize_t n = retryOnInterrupt([&] { return ::getrandom(out.data(), out.size(), 0); });
        if (n < 0)
            return fail(errorFromErrno(errno));
        out = out.subspan(static_cast<std::size_t>(n));
    }
    return {};
}

} // namespace tovel::sys
