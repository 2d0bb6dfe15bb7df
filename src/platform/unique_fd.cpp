// UniqueFd's one libc call.
#include "platform/unique_fd.hpp"

#include <unistd.h>

namespace tovel {

void UniqueFd::reset(int fd) {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = fd;
}

} // namespace tovel
