// The `kill` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runKill(Args args);

} // namespace tovel
