// The `preflight` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runPreflight(Args args);

} // namespace tovel
