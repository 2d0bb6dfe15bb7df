// The `list` command.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

// `list [--json]`: one line or one JSON object per live session.
[[nodiscard]] CommandResult runList(Args args);

} // namespace tovel
