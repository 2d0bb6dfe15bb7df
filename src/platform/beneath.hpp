// Opening paths that must stay below a directory descriptor: a request's
// path inside the served tree is resolved once, by the kernel, and
// everything after that works on the descriptor it gives.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <string>
#include <string_view>

namespace tovel::sys {

// Opens `relative` (segments split by "/", no ".." among them) below the
// directory `directoryFd` with `flags` (close-on-exec added). The walk never
// leaves that directory: openat2 with RESOLVE_BENEATH, which follows only
// relative links that stay below it; where openat2 is missing, one openat
// per segment with O_NOFOLLOW, so that no link is followed at all. A path
// that would leave the directory fails with CrossDevice or SymLinkLoop.
[[nodiscard]] Result<UniqueFd> openBeneath(int directoryFd, std::string_view relative, int flags);

// The path the kernel has for an open descriptor (/proc/self/fd).
[[nodiscard]] Result<std::string> descriptorPath(int fd);

// readlinkat on an entry of the directory `directoryFd`.
[[nodiscard]] Result<std::string> readlinkAt(int directoryFd, std::string_view name);

} // namespace tovel::sys
