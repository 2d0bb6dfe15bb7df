// The `serve` command: a loopback HTTP/1.1 file server.
#pragma once

#include "cli/command.hpp"

namespace tovel {

[[nodiscard]] CommandResult runServe(Args args);

} // namespace tovel
