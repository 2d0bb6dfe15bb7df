// The loopback HTTP/1.1 file server: root checks, the listener, the accept
// loop with its idle timeout, and one detached thread per connection.
#pragma once

#include "platform/result.hpp"
#include "serve/serve_settings.hpp"

#include <cstdint>
#include <string_view>

namespace tovel::serve {

struct ServeRequest {
    std::string_view root;
    std::uint16_t port = 0; // 0: the system picks one
    BrowseMode browseMode = BrowseMode::Off;
    std::uint32_t idleTimeoutSeconds = 0; // 0: none
};

// The step of starting that failed; None when the server started and ran
// until its idle timeout.
enum class StartStep : std::uint8_t {
    None,
    OpenRoot,
    StatRoot,
    RootNotDirectory,
    Socket,
    Bind,
    BoundPort,
    Listen,
};

struct ServeEnd {
    StartStep failedStep = StartStep::None;
    Error error = Error::Unexpected;
};

// Prints "TOVEL_PTYD_SERVE_PORT <n>" once listening and serves until the
// idle timeout, if any.
[[nodiscard]] Result<ServeEnd> runServer(const ServeRequest& request);

} // namespace tovel::serve
