// IPv4 loopback sockets.
#include "platform/tcp.hpp"

#include "platform/retry.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace tovel::sys {

Result<UniqueFd> tcpSocket() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return fail(errorFromErrno(errno));
    return UniqueFd(fd);
}

Result<> setReuseAddress(int fd) {
    int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<> bindLoopback(int fd, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<std::uint16_t> boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return fail(errorFromErrno(errno));
    return ntohs(address.sin_port);
}

Result<> listen(int fd, int backlog) {
    if (::listen(fd, backlog) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

namespace {

Result<> setTimeout(int fd, int option, int seconds) {
    timeval limit{};
    limit.tv_sec = seconds;
    if (::setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace

Result<> setSendTimeout(int fd, int seconds) {
    return setTimeout(fd, SO_SNDTIMEO, seconds);
}

Result<std::size_t> send(int fd, std::string_view bytes, MoreToCome more) {
    int flags = MSG_NOSIGNAL | (more == MoreToCome::Yes ? MSG_MORE : 0);
    ssize_t sent = retryOnInterrupt([&] { return ::send(fd, bytes.data(), bytes.size(), flags); });
    if (sent < 0)
        return fail(errorFromErrno(errno));
    return static_cast<std::size_t>(sent);
}

Result<std::size_t> receiveNow(int fd, std::span<char> buffer) {
    ssize_t got =
        retryOnInterrupt([&] { return ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT); });
    if (got < 0)
        return fail(errorFromErrno(errno));
    return static_cast<std::size_t>(got);
}

Result<> setDeferAccept(int fd, int seconds) {
    if (::setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &seconds, sizeof seconds) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<UniqueFd> accept(int listenFd) {
    int fd = retryOnInterrupt([&] { return ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC); });
    if (fd < 0)
        return fail(errorFromErrno(errno));
    return UniqueFd(fd);
}

} // namespace tovel::sys
