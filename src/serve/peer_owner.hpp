// Only the server's own user may use it: the owner of the socket at the
// other end of each connection is looked up before anything is answered.
#pragma once

namespace tovel::serve {

enum class PeerAccess { Allowed, Refused };

// Allowed when the peer's socket belongs to the server's own uid or to
// root. An owner that cannot be found out is refused, and the first such
// connection logs one warning.
[[nodiscard]] PeerAccess checkPeerOwner(int socketFd);

} // namespace tovel::serve
