// Unix-domain stream sockets: connect, listen, accept.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <string_view>
#include <sys/types.h>

namespace tovel::sys {

// A close-on-exec AF_UNIX stream socket connected to `path` (the whole
// sockaddr_un is passed). The caller checks the path's length first.
[[nodiscard]] Result<UniqueFd> connectUnix(std::string_view path);

// A close-on-exec AF_UNIX stream socket bound to `path` and listening.
[[nodiscard]] Result<UniqueFd> listenUnix(std::string_view path, int backlog);

// The same in the Linux abstract namespace: `name` is given without its
// leading NUL byte, and the address covers exactly the name's bytes, so no
// file is involved. AddressInUse when another socket holds the name. Any
// local user can listen there, so the connect never waits: WouldBlock when
// the listener's backlog is full, and the socket stays non-blocking.
[[nodiscard]] Result<UniqueFd> connectAbstract(std::string_view name);
[[nodiscard]] Result<UniqueFd> listenAbstract(std::string_view name, int backlog);

// accept4 with close-on-exec and non-blocking set on the new socket.
[[nodiscard]] Result<UniqueFd> acceptNonBlocking(int listenFd);

[[nodiscard]] Result<> setSendBuffer(int fd, int bytes);

// The user id of the process at the other end of a connected Unix socket,
// as the kernel recorded it at connect time (SO_PEERCRED).
[[nodiscard]] Result<uid_t> peerUid(int fd);

} // namespace tovel::sys
