// Flow control between the shell and its clients: while an attached client
// that keeps accepting bytes has more than the high-water mark queued, the
// keeper stops reading the PTY and the shell waits, as it would on a slow
// terminal. A client that has accepted nothing for a while no longer holds
// the shell back; its queue grows to the output bound and it is cut off.
#pragma once

#include "keeper/keeper_client.hpp"

#include <cstdint>
#include <memory>
#include <span>

namespace tovel {

constexpr std::size_t kOutputHighWater = 1048576;
constexpr std::int64_t kClientStallMs = 2000;

struct OutputFlow {
    bool readShell = true;
    // Milliseconds until a holding client counts as stalled; -1 for none.
    int timeoutMs = -1;
};

[[nodiscard]] OutputFlow outputFlow(std::span<const std::unique_ptr<KeeperClient>> clients,
                                    std::int64_t now);

// The earlier of two poll timeouts, where -1 waits for ever.
[[nodiscard]] int earlierTimeout(int first, int second);

} // namespace tovel
