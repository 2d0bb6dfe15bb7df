// Where a session's keeper can be reached: its socket file in the runtime
// directory, and a name in Linux's abstract socket namespace that no file
// clean-up can remove. The name is derived from the user id, a hash of the
// runtime directory's path (sessions of two directories stay apart) and the
// session id; the keeper holding it is the one keeper of that id.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <string>
#include <string_view>

namespace tovel {

// "tovel-ptyd/<uid>/<hash of runtimeDir>/", shared by every session name of
// that directory.
[[nodiscard]] std::string abstractNamePrefix(std::string_view runtimeDir);
[[nodiscard]] std::string abstractSessionName(std::string_view runtimeDir, std::string_view id);

// Connects to an abstract name. A listener whose backlog is full is waited
// for a second at most, then WouldBlock: a keeper takes its connections
// within moments, and one that never accepts must not hang anyone.
[[nodiscard]] Result<UniqueFd> connectAbstractName(std::string_view name);

// Connects to the session in `runtimeDir`: its socket path first, then its
// abstract name when the path is missing or refuses. A failure reports the
// path's error.
[[nodiscard]] Result<UniqueFd> connectSessionIn(std::string_view runtimeDir, std::string_view id);

// The same for the session of this process's runtime directory: the one
// connect used by attach, ensure, connect and kill. A runtime directory that
// cannot be created because its parent is gone still leaves the abstract
// name to try.
[[nodiscard]] Result<UniqueFd> connect_session(std::string_view id);

} // namespace tovel
