// The session's lock file: held exclusively by its keeper for its whole life,
// probed by others to tell whether a keeper for the id is alive.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <string_view>

namespace tovel {

// Opens (creating, mode 0600, never through a link) "<RuntimeDir>/<id>.lock"
// and takes the lock; a lock file removed meanwhile by its ending keeper is
// let go and the fresh one taken instead. WouldBlock: another keeper holds it.
[[nodiscard]] Result<UniqueFd> acquireSessionLock(std::string_view id);

enum class LockState { Free, Held };

// Whether a keeper holds the session's lock right now (the probe releases
// whatever it took at once).
[[nodiscard]] Result<LockState> probeSessionLock(std::string_view id);
// The same probe on a lock file's path (callers that must not create the
// runtime directory).
[[nodiscard]] Result<LockState> probeLockFile(std::string_view path);

} // namespace tovel
