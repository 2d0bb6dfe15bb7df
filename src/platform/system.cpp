// Descriptor, file and path wrappers.
#include "platform/system.hpp"

#include "platform/retry.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace tovel::sys {

namespace {

std::unexpected<Error> failErrno() {
    return fail(errorFromErrno(errno));
}

} // namespace

std::string cString(std::string_view text) {
    return std::string(text);
}

Result<UniqueFd> open(std::string_view path, int flags, mode_t mode) {
    std::string p = cString(path);
    int fd = retryOnInterrupt([&] { return ::open(p.c_str(), flags | O_CLOEXEC, mode); });
    if (fd < 0)
        return failErrno();
    return UniqueFd(fd);
}

Result<std::size_t> read(int fd, std::span<std::byte> buffer) {
    ssize_t n = retryOnInterrupt([&] { return ::read(fd, buffer.data(), buffer.size()); });
    if (n < 0)
        return failErrno();
    return static_cast<std::size_t>(n);
}

Result<std::size_t> read(int fd, std::span<char> buffer) {
    return read(fd, std::as_writable_bytes(buffer));
}

Result<std::size_t> write(int fd, std::span<const std::byte> bytes) {
    ssize_t n = retryOnInterrupt([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (n < 0)
        return failErrno();
    return static_cast<std::size_t>(n);
}

Result<std::size_t> write(int fd, std::string_view bytes) {
    return write(fd, std::as_bytes(std::span(bytes.data(), bytes.size())));
}

Result<std::size_t> writev(int fd, std::span<const std::string_view> pieces) {
    constexpr std::size_t kMaxPieces = 8;
    iovec vectors[kMaxPieces];
    std::size_t count = std::min(pieces.size(), kMaxPieces);
    for (std::size_t i = 0; i < count; ++i)
        vectors[i] = {const_cast<char*>(pieces[i].data()), pieces[i].size()};
    ssize_t n = retryOnInterrupt([&] { return ::writev(fd, vectors, static_cast<int>(count)); });
    if (n < 0)
        return failErrno();
    return static_cast<std::size_t>(n);
}

Result<std::size_t> sendfile(int out, int in, std::size_t count) {
    ssize_t n = retryOnInterrupt([&] { return ::sendfile(out, in, nullptr, count); });
    if (n < 0)
        return failErrno();
    return static_cast<std::size_t>(n);
}

Result<> writeAll(int fd, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        auto written = write(fd, bytes);
        if (!written && written.error() == Error::WouldBlock) {
            pollfd entry{fd, POLLOUT, 0};
            TRY(poll(std::span(&entry, 1), -1));
            if (entry.revents & (POLLERR | POLLHUP | POLLNVAL))
                return fail(Error::BrokenPipe);
            continue;
        }
        if (!written)
            return fail(written.error());
        if (*written == 0)
            return fail(Error::BrokenPipe);
        bytes = bytes.subspan(*written);
    }
    return {};
}

Result<> writeAll(int fd, std::string_view bytes) {
    return writeAll(fd, std::as_bytes(std::span(bytes.data(), bytes.size())));
}

Result<Pipe> pipe(int extraFlags) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | extraFlags) != 0)
        return failErrno();
    return Pipe{UniqueFd(fds[0]), UniqueFd(fds[1])};
}

Result<> dup2(int from, int to) {
    if (retryOnInterrupt([&] { return ::dup2(from, to); }) < 0)
        return failErrno();
    return {};
}

Result<int> fcntl(int fd, int command, long argument) {
    int value = retryOnInterrupt([&] { return ::fcntl(fd, command, argument); });
    if (value < 0)
        return failErrno();
    return value;
}

Result<> setNonBlocking(int fd) {
    int flags = TRY(fcntl(fd, F_GETFL));
    TRY(fcntl(fd, F_SETFL, flags | O_NONBLOCK));
    return {};
}

Result<> setBlocking(int fd) {
    int flags = TRY(fcntl(fd, F_GETFL));
    TRY(fcntl(fd, F_SETFL, flags & ~O_NONBLOCK));
    return {};
}

Result<> setCloseOnExec(int fd, bool closeOnExec) {
    int flags = TRY(fcntl(fd, F_GETFD));
    flags = closeOnExec ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
    TRY(fcntl(fd, F_SETFD, flags));
    return {};
}

Result<int> poll(std::span<pollfd> fds, int timeoutMs) {
    int ready = retryOnInterrupt([&] { return ::poll(fds.data(), fds.size(), timeoutMs); });
    if (ready < 0)
        return fail(narrowError(errorFromErrno(errno), {Error::SystemResources}));
    return ready;
}

Result<struct stat> stat(std::string_view path) {
    struct stat st {};
    if (::stat(cString(path).c_str(), &st) != 0)
        return failErrno();
    return st;
}

Result<struct stat> lstat(std::string_view path) {
    struct stat st {};
    if (::lstat(cString(path).c_str(), &st) != 0)
        return failErrno();
    return st;
}

Result<struct stat> fstat(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return failErrno();
    return st;
}

Result<> mkdir(std::string_view path, mode_t mode) {
    if (::mkdir(cString(path).c_str(), mode) != 0)
        return failErrno();
    return {};
}

Result<> chmod(std::string_view path, mode_t mode) {
    std::string p = cString(path);
    if (retryOnInterrupt([&] { return ::chmod(p.c_str(), mode); }) < 0)
        return failErrno();
    return {};
}

Result<> fchmod(int fd, mode_t mode) {
    if (retryOnInterrupt([&] { return ::fchmod(fd, mode); }) < 0)
        return failErrno();
    return {};
}

Result<> rename(std::string_view from, std::string_view to) {
    if (::rename(cString(from).c_str(), cString(to).c_str()) != 0)
        return failErrno();
    return {};
}

Result<> unlink(std::string_view path) {
    if (::unlink(cString(path).c_str()) != 0)
        return failErrno();
    return {};
}

Result<std::string> getcwd() {
    char buffer[PATH_MAX];
    if (::getcwd(buffer, sizeof buffer) == nullptr)
        return failErrno();
    return std::string(buffer);
}

Result<std::string> realpath(std::string_view path) {
    char resolved[PATH_MAX];
    if (::realpath(cString(path).c_str(), resolved) == nullptr)
        return failErrno();
    return std::string(resolved);
}

Result<std::string> readlink(std::string_view path) {
    char target[4096];
    ssize_t n = ::readlink(cString(path).c_str(), target, sizeof target);
    if (n < 0)
        return failErrno();
    if (static_cast<std::size_t>(n) >= sizeof target)
        return fail(Error::NameTooLong);
    return std::string(target, static_cast<std::size_t>(n));
}

Result<std::string> selfExecutablePath() {
    return readlink("/proc/self/exe");
}

bool isatty(int fd) {
    return ::isatty(fd) == 1;
}

uid_t realUserId() {
    return ::getuid();
}

} // namespace tovel::sys
