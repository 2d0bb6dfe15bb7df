// The usage text, --help and --version.
#pragma once

#include "cli/commands/command.hpp"

namespace tovel {

// Printed by --help, and on standard output for usage errors.
extern const std::string_view kUsageText;

[[nodiscard]] CommandResult printHelp(Args args);
[[nodiscard]] CommandResult printVersion(Args args);

} // namespace tovel
