// The per-user runtime directory that holds every session's files, and the
// names of those files. Chosen once per process from TOVEL_PTYD_DIR,
// XDG_RUNTIME_DIR or TMPDIR, created with mode 0700, accepted only when the
// user owns it, and then remembered.
#pragma once

#include "platform/result.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::size_t kMaxRuntimeDirLength = 4096;

// Joins two path parts with exactly one "/" between them.
[[nodiscard]] std::string joinPath(std::string_view left, std::string_view right);

// The base path from the environment, without creating anything.
[[nodiscard]] Result<std::string> chooseRuntimeDir();

// The chosen directory, created on the first call, refused with
// RuntimeDirNotOwned unless it is a directory of the real user (not a link),
// then its mode forced to 0700 and remembered for the life of the process.
// Thread-safe.
[[nodiscard]] Result<std::string> runtimeDir();

// The chosen directory when it exists, without creating it or changing its
// mode (nullopt when it is missing); the same ownership check as above.
[[nodiscard]] Result<std::optional<std::string>> existingRuntimeDir();

// Creates the remembered directory again, with the same checks and mode as
// the first time, after something removed it (a keeper repairing its
// files). FileNotFound while its parent is missing.
[[nodiscard]] Result<> recreateRuntimeDir();

// "<RuntimeDir>/<id><suffix>"; InvalidSessionId for a malformed id.
[[nodiscard]] Result<std::string> sessionPath(std::string_view id, std::string_view suffix);

// Whether the chosen directory leaves room for a session's socket path
// (PathTooLong otherwise), checked before a keeper is launched that could
// only fail in the dark. Creates nothing.
[[nodiscard]] Result<> checkSocketPathFits();

// Forgets the remembered directory (tests change the environment).
void resetRuntimeDirForTesting();

} // namespace tovel
