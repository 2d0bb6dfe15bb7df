// The `ensure` command.
#pragma once

#include "cli/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runEnsure(Args args);

} // namespace tovel
