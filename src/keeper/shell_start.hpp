// The session's PTY and the shell on its slave side: allocation, the forked
// child's set-up, and the exec handshake that tells whether the shell's
// program really started.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstdint>
#include <string_view>

#include <sys/types.h>

namespace tovel {

struct ShellProcess {
    UniqueFd master; // non-blocking, close-on-exec
    pid_t pid = 0;   // session leader: also its process-group id
};

// Starts the shell (or `cmd` through it) in a new PTY of `cols` x `rows`.
// Empty `cmd` or `cwd` mean absent.
[[nodiscard]] Result<ShellProcess> startShell(std::uint16_t cols, std::uint16_t rows,
                                              std::string_view cmd, std::string_view cwd);

} // namespace tovel
