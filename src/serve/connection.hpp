// One connection of the file server: exactly one request read, routed and
// answered, then the socket is closed.
#pragma once

#include "platform/unique_fd.hpp"
#include "serve/serve_settings.hpp"

namespace tovel::serve {

constexpr std::size_t kRequestHeadSize = 16384;

void handleConnection(UniqueFd socket, ServeSettings& settings);

} // namespace tovel::serve
