// Flow control between the shell and its clients.
#include "keeper/output_flow.hpp"

#include <algorithm>

namespace tovel {

OutputFlow outputFlow(std::span<const std::unique_ptr<KeeperClient>> clients, std::int64_t now) {
    OutputFlow flow;
    for (const auto& client : clients) {
        if (!client->attached || client->dropped || client->output.pending() <= kOutputHighWater)
            continue;
        std::int64_t stallsIn = client->progressAtMs + kClientStallMs - now;
        if (stallsIn <= 0)
            continue;
        flow.readShell = false;
        flow.timeoutMs = earlierTimeout(flow.timeoutMs, static_cast<int>(stallsIn));
    }
    return flow;
}

int earlierTimeout(int first, int second) {
    if (first < 0)
        return second;
    if (second < 0)
        return first;
    return std::min(first, second);
}

} // namespace tovel
