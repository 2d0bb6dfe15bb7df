// The `preflight` command.
#pragma once

#include "cli/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runPreflight(Args args);

} // namespace tovel
