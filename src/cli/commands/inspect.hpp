// The `inspect` command.
#pragma once

#include "cli/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runInspect(Args args);

} // namespace tovel
