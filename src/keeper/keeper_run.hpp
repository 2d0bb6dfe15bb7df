// The keeper's run: start-up (lock, socket, PTY and shell, metadata, signal
// set-up, ready byte) and then the single-threaded event loop until the shell
// has exited and every client has been told.
#pragma once

#include "cli/spawn_options.hpp"
#include "platform/result.hpp"

#include <string_view>

namespace tovel {

// Returns the process exit status to use when the keeper ends normally, or
// the start-up error (SessionAlreadyRunning when another keeper holds the
// session's lock). `readyFd` receives exactly one byte: "R" or "F".
[[nodiscard]] Result<int> runKeeper(std::string_view id, const SpawnOptions& options, int readyFd);

} // namespace tovel
