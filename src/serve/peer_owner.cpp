// Checking who is at the other end of a connection.
#include "serve/peer_owner.hpp"

#include "cli/log.hpp"
#include "platform/socket_owner.hpp"

#include <atomic>

namespace tovel::serve {

namespace {

std::atomic<bool> warnedUnknownOwner{false};

Result<uid_t> peerOwner(int socketFd) {
    sys::TcpEnds ends = TRY(sys::tcpEnds(socketFd));
    auto owner = sys::peerOwnerByDiag(ends);
    if (owner)
        return owner;
    // Kernels without the socket-diagnostics module still list sockets.
    return sys::peerOwnerByProcTable(ends);
}

} // namespace

PeerAccess checkPeerOwner(int socketFd) {
    auto owner = peerOwner(socketFd);
    if (!owner) {
        if (!warnedUnknownOwner.exchange(true))
            logWarning(LogScope::Serve, "cannot tell who owns a connection (", owner.error(),
                       "); refusing it");
        return PeerAccess::Refused;
    }
    if (*owner == sys::effectiveUid() || *owner == 0)
        return PeerAccess::Allowed;
    return PeerAccess::Refused;
}

} // namespace tovel::serve
