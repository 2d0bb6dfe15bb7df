// The `connect` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runConnect(Args args);

} // namespace tovel
