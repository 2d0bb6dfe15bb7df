// Unix-domain stream sockets: connect, listen, accept.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <string_view>

namespace tovel::sys {

// A close-on-exec AF_UNIX stream socket connected to `path` (the whole
// sockaddr_un is passed). The caller checks the path's length first.
[[nodiscard]] Result<UniqueFd> connectUnix(std::string_view path);

// A close-on-exec AF_UNIX stream socket bound to `path` and listening.
[[nodiscard]] Result<UniqueFd> listenUnix(std::string_view path, int backlog);

// accept4 with close-on-exec and non-blocking set on the new socket.
[[nodiscard]] Result<UniqueFd> acceptNonBlocking(int listenFd);

[[nodiscard]] Result<> setSendBuffer(int fd, int bytes);

} // namespace tovel::sys
