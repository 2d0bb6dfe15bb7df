// The `ensure` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runEnsure(Args args);

} // namespace tovel
