// The `doctor` command: whether sessions here will outlive a logout, and
// what to change when they will not.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

// `doctor [--json]`: one finding per line (or one JSON object); status 0
// when nothing stands in the way of surviving a logout, 1 otherwise.
[[nodiscard]] CommandResult runDoctor(Args args);

} // namespace tovel
