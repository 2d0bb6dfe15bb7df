// Unix-domain socket wrappers.
#include "platform/socket.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace tovel::sys {

namespace {

Error socketError(int errnoValue) {
    switch (errnoValue) {
    case ENOMEM:
    case ENOBUFS:
        return Error::SystemResources;
    case EACCES:
        return Error::AccessDenied;
    case ENFILE:
        return Error::SystemFdQuotaExceeded;
    case EMFILE:
        return Error::ProcessFdQuotaExceeded;
    case EAFNOSUPPORT:
        return Error::AddressFamilyNotSupported;
    default:
        return Error::Unexpected;
    }
}

Result<sockaddr_un> unixAddress(std::string_view path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path)
        return fail(Error::PathTooLong);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

Result<UniqueFd> unixSocket() {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return fail(socketError(errno));
    return UniqueFd(fd);
}

} // namespace

Result<UniqueFd> connectUnix(std::string_view path) {
    sockaddr_un address = TRY(unixAddress(path));
    UniqueFd fd = TRY(unixSocket());
    for (;;) {
        if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
            return fd;
        if (errno != EINTR)
            return fail(errorFromErrno(errno));
    }
}

Result<UniqueFd> listenUnix(std::string_view path, int backlog) {
    sockaddr_un address = TRY(unixAddress(path));
    UniqueFd fd = TRY(unixSocket());
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return fail(errorFromErrno(errno));
    if (::listen(fd.get(), backlog) != 0)
        return fail(errorFromErrno(errno));
    return fd;
}

Result<UniqueFd> acceptNonBlocking(int listenFd) {
    for (;;) {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0)
            return UniqueFd(fd);
        if (errno != EINTR)
            return fail(errorFromErrno(errno));
    }
}

Result<> setSendBuffer(int fd, int bytes) {
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace tovel::sys
