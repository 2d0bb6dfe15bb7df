// The `list` command's output, after the front end has checked its arguments.
#pragma once

#include "cli/command.hpp"

namespace tovel {

enum class OutputFormat { Text, Json };

[[nodiscard]] CommandResult listSessions(OutputFormat format);

} // namespace tovel
