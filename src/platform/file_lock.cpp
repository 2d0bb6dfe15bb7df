// Advisory whole-file locks.
#include "platform/file_lock.hpp"

#include "platform/retry.hpp"

#include <cerrno>
#include <sys/file.h>

namespace tovel::sys {

Result<> lockExclusiveNonBlocking(int fd) {
    if (retryOnInterrupt([&] { return ::flock(fd, LOCK_EX | LOCK_NB); }) < 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace tovel::sys
