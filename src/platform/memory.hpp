// Process memory policy.
#pragma once

namespace tovel::sys {

// Large buffers (client queues, replays) come from their own mappings and go
// back to the system when freed, so that a burst of output does not leave a
// long-lived process larger for the rest of its life.
void returnLargeBuffersToSystem();

} // namespace tovel::sys
