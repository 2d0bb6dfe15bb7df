// The keeper process's entry: "--keeper-exec" and its 12 arguments.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runKeeperEntry(Args args);

} // namespace tovel
