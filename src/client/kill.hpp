// The `kill` command.
#pragma once

#include "cli/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runKill(Args args);

} // namespace tovel
