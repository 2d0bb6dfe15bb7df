// The kernel's table of Unix sockets (/proc/net/unix): which abstract
// names have a listening socket right now. Files can be removed; these
// names live exactly as long as their sockets.
#pragma once

#include "platform/result.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tovel::sys {

// The names (without the leading NUL byte) of the listening abstract Unix
// stream sockets of this network namespace that begin with `prefix`, in the
// kernel's order.
[[nodiscard]] Result<std::vector<std::string>> listeningAbstractNames(std::string_view prefix);

} // namespace tovel::sys
