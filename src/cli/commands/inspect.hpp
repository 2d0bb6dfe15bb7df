// The `inspect` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runInspect(Args args);

} // namespace tovel
