// Connect and greet: the procedure every attach and every reconnect runs
// before live traffic — connect, Hello, the portable takeover exchange when
// the attach carries portable metadata, then Attach with the window size.
#pragma once

#include "cli/spawn_options.hpp"
#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstdint>
#include <string_view>

namespace tovel {

constexpr int kTakeoverAnswerTimeoutMs = 2000;

// Why a keeper would not let this client take the session over: the error,
// and for the stale refusals the generation the keeper expected and the one
// it observed (its own) or received (the request's).
struct TakeoverRefusal {
    Error error = Error::Unexpected;
    std::uint64_t expected = 0;
    std::uint64_t other = 0;
};

// Fills `refusal` whenever it fails (its error is the failure's).
[[nodiscard]] Result<UniqueFd>
connectAndGreet(std::string_view id, const PortableMetadata& portable, TakeoverRefusal& refusal);

// The errors of a takeover refusal: retrying cannot help, because a newer
// owner holds the session or the keeper cannot judge the request.
[[nodiscard]] bool isTakeoverRefusal(Error error);

} // namespace tovel
