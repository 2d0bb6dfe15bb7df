// Unix-domain socket wrappers.
#include "platform/socket.hpp"

#include "platform/retry.hpp"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace tovel::sys {

namespace {

Result<sockaddr_un> unixAddress(std::string_view path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path)
        return fail(Error::PathTooLong);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// An abstract address: sun_path starts with a NUL byte and the length
// passed to the kernel ends right after the name.
struct AbstractAddress {
    sockaddr_un address{};
    socklen_t length = 0;
};

Result<AbstractAddress> abstractAddress(std::string_view name) {
    AbstractAddress out;
    if (name.size() + 1 > sizeof out.address.sun_path)
        return fail(Error::PathTooLong);
    out.address.sun_family = AF_UNIX;
    std::memcpy(out.address.sun_path + 1, name.data(), name.size());
    out.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return out;
}

Result<UniqueFd> unixSocket(int flags = 0) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    // Creation failures callers tell apart; anything else is Unexpected.
    if (fd < 0)
        return fail(
            narrowError(errorFromErrno(errno),
                        {Error::SystemResources, Error::AccessDenied, Error::SystemFdQuotaExceeded,
                         Error::ProcessFdQuotaExceeded, Error::AddressFamilyNotSupported}));
    return UniqueFd(fd);
}

// A Unix stream socket connects at once or, with the listener's backlog
// full, waits; `flags` with SOCK_NONBLOCK makes that wait WouldBlock.
Result<UniqueFd> connectTo(const sockaddr_un& address, socklen_t length, int flags = 0) {
    UniqueFd fd = TRY(unixSocket(flags));
    int connected = retryOnInterrupt(
        [&] { return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length); });
    if (connected < 0)
        return fail(errorFromErrno(errno));
    return fd;
}

Result<UniqueFd> listenAt(const sockaddr_un& address, socklen_t length, int backlog) {
    UniqueFd fd = TRY(unixSocket());
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0)
        return fail(errorFromErrno(errno));
    if (::listen(fd.get(), backlog) != 0)
        return fail(errorFromErrno(errno));
    return fd;
}

} // namespace

Result<UniqueFd> connectUnix(std::string_view path) {
    sockaddr_un address = TRY(unixAddress(path));
    return connectTo(address, sizeof address);
}

Result<UniqueFd> listenUnix(std::string_view path, int backlog) {
    sockaddr_un address = TRY(unixAddress(path));
    return listenAt(address, sizeof address, backlog);
}

Result<UniqueFd> connectAbstract(std::string_view name) {
    AbstractAddress abstract = TRY(abstractAddress(name));
    return connectTo(abstract.address, abstract.length, SOCK_NONBLOCK);
}

Result<UniqueFd> listenAbstract(std::string_view name, int backlog) {
    AbstractAddress abstract = TRY(abstractAddress(name));
    return listenAt(abstract.address, abstract.length, backlog);
}

Result<UniqueFd> acceptNonBlocking(int listenFd) {
    int fd = retryOnInterrupt(
        [&] { return ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); });
    if (fd < 0)
        return fail(errorFromErrno(errno));
    return UniqueFd(fd);
}

Result<> setSendBuffer(int fd, int bytes) {
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<uid_t> peerUid(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return fail(errorFromErrno(errno));
    return credentials.uid;
}

} // namespace tovel::sys
