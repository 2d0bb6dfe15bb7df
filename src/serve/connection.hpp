// One connection of the file server: exactly one request read, routed and
// answered, then the socket is closed.
#pragma once

#include "platform/unique_fd.hpp"
#include "serve/serve_settings.hpp"

namespace tovel::serve {

constexpr std::size_t kRequestHeadSize = 16384;

// Sets the stall limits of connections on the listening socket; every
// accepted socket inherits them, so a connection costs no call for them.
void setConnectionTimeouts(int listenerFd);

// A connection on its own thread has the whole head deadline; one handled
// on the accept thread, because no thread could start, gets a short one so
// that slow clients cannot hold the accept loop.
enum class Handling { OwnThread, Inline };

void handleConnection(UniqueFd socket, ServeSettings& settings, Handling handling);

} // namespace tovel::serve
