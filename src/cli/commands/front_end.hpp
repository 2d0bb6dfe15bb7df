// The command-line front end: global --dir, dispatch by command word, and
// the small commands it performs itself (new, attach's checks, version, help).
#pragma once

#include <span>
#include <string_view>

namespace tovel {

// Runs one command line (argv without the program name) and returns the
// process exit status.
[[nodiscard]] int runFrontEnd(std::span<const std::string_view> args);

// The usage text, printed by --help and for usage errors.
extern const std::string_view kUsageText;

} // namespace tovel
