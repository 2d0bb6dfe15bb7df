// The `new` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runNew(Args args);

} // namespace tovel
