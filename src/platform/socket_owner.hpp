// Who owns the other end of a loopback TCP connection: the kernel's
// socket-diagnostics interface (NETLINK_SOCK_DIAG) answers for one socket
// by its addresses; /proc/net/tcp lists them all where that is missing.
#pragma once

#include "platform/result.hpp"

#include <cstdint>
#include <sys/types.h>

namespace tovel::sys {

// Both ends of an accepted IPv4 connection, addresses and ports in network
// byte order as the socket calls give them.
struct TcpEnds {
    std::uint32_t localAddress = 0;
    std::uint16_t localPort = 0;
    std::uint32_t peerAddress = 0;
    std::uint16_t peerPort = 0;
};

// getsockname and getpeername of the accepted socket `fd`.
[[nodiscard]] Result<TcpEnds> tcpEnds(int fd);

// The uid owning the peer's socket, asked of NETLINK_SOCK_DIAG.
[[nodiscard]] Result<uid_t> peerOwnerByDiag(const TcpEnds& ends);

// The same from /proc/net/tcp; FileNotFound when the socket is not listed.
[[nodiscard]] Result<uid_t> peerOwnerByProcTable(const TcpEnds& ends);

// The process's effective uid.
[[nodiscard]] uid_t effectiveUid();

} // namespace tovel::sys
