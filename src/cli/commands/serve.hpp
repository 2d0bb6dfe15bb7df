// The `serve` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runServe(Args args);

} // namespace tovel
