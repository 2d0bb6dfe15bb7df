// The command-line front end: global --dir, dispatch by command word, and
// every command's outcome as the process exit status.
#pragma once

#include <span>
#include <string_view>

namespace tovel {

// Runs one command line (argv without the program name) and returns the
// process exit status.
[[nodiscard]] int runFrontEnd(std::span<const std::string_view> args);

} // namespace tovel
