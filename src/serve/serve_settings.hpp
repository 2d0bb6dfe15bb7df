// The server's process-wide settings: written once before the accept loop,
// then only read, except the atomic time of the last request.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace tovel::serve {

enum class BrowseMode { Off, On };

struct ServeSettings {
    std::string root;         // as given on the command line
    std::string rootRealPath; // resolved once at start-up
    BrowseMode browseMode = BrowseMode::Off;
    std::atomic<std::int64_t> lastActivityMs{0};
};

} // namespace tovel::serve
