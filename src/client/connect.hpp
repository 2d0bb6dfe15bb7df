// The `connect` command.
#pragma once

#include "cli/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runConnect(Args args);

} // namespace tovel
