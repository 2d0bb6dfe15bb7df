// Starting a keeper in the background: double fork, setsid, re-exec of this
// program with "--keeper-exec", and a wait of at most 5000 ms for its ready
// byte.
#pragma once

#include "cli/spawn_options.hpp"
#include "platform/result.hpp"

#include <string_view>

namespace tovel {

enum class LaunchOutcome { Ready, NotReady };

[[nodiscard]] Result<LaunchOutcome> launchKeeper(std::string_view id, const SpawnOptions& options);

} // namespace tovel
