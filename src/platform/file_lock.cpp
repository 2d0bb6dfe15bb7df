// Advisory whole-file locks.
#include "platform/file_lock.hpp"

#include <cerrno>
#include <sys/file.h>

namespace tovel::sys {

Result<> lockExclusiveNonBlocking(int fd) {
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            return {};
        if (errno == EWOULDBLOCK)
            return fail(Error::WouldBlock);
        if (errno != EINTR)
            return fail(errorFromErrno(errno));
    }
}

} // namespace tovel::sys
