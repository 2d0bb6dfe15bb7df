// Connect and greet: the procedure every attach and every reconnect runs
// before live traffic — connect, Hello, the portable takeover exchange when
// the attach carries portable metadata, then Attach with the window size.
#pragma once

#include "cli/spawn_options.hpp"
#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <string_view>

namespace tovel {

constexpr int kTakeoverAnswerTimeoutMs = 2000;

// The keeper's answer to a PortableTakeover request; prints the refusal's
// line and returns its error name.
[[nodiscard]] Result<> exchangePortableTakeover(int fd, const PortableMetadata& portable);

[[nodiscard]] Result<UniqueFd> connectAndGreet(std::string_view id,
                                               const PortableMetadata& portable);

// The errors of a takeover refusal: retrying cannot help, because a newer
// owner holds the session or the keeper cannot judge the request.
[[nodiscard]] bool isTakeoverRefusal(Error error);

} // namespace tovel
