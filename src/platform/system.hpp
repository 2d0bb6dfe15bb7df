// Thin wrappers over the C library's descriptor, file and process calls.
// Each returns a Result; errno becomes a name through errorFromErrno. EINTR
// policy: every wrapper here retries an interrupted call, except where the
// name says otherwise (pollOnce).
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace tovel::sys {

// Makes a NUL-terminated copy for calls that need a C string.
std::string cString(std::string_view text);

[[nodiscard]] Result<UniqueFd> open(std::string_view path, int flags, mode_t mode = 0);
[[nodiscard]] Result<std::size_t> read(int fd, std::span<std::byte> buffer);
[[nodiscard]] Result<std::size_t> read(int fd, std::span<char> buffer);
[[nodiscard]] Result<std::size_t> write(int fd, std::span<const std::byte> bytes);
[[nodiscard]] Result<std::size_t> write(int fd, std::string_view bytes);
// writev of up to a few pieces; returns the bytes written.
[[nodiscard]] Result<std::size_t> writev(int fd, std::span<const std::string_view> pieces);
// Writes everything, waiting for POLLOUT on a non-blocking descriptor. A
// write that returns 0 is BrokenPipe.
[[nodiscard]] Result<> writeAll(int fd, std::string_view bytes);
[[nodiscard]] Result<> writeAll(int fd, std::span<const std::byte> bytes);

// sendfile from the current offset of `in`; returns the bytes sent (0 at
// the end of the file).
[[nodiscard]] Result<std::size_t> sendfile(int out, int in, std::size_t count);

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};
// Both ends close-on-exec; `extraFlags` may add O_NONBLOCK.
[[nodiscard]] Result<Pipe> pipe(int extraFlags = 0);

[[nodiscard]] Result<> dup2(int from, int to);
[[nodiscard]] Result<int> fcntl(int fd, int command, long argument = 0);
[[nodiscard]] Result<> setNonBlocking(int fd);
[[nodiscard]] Result<> setBlocking(int fd);
[[nodiscard]] Result<> setCloseOnExec(int fd, bool closeOnExec);

// poll with a timeout in milliseconds (-1 waits forever). Retries EINTR with
// the same timeout. Returns the number of ready entries; fails only as
// SystemResources or Unexpected.
[[nodiscard]] Result<int> poll(std::span<pollfd> fds, int timeoutMs);

[[nodiscard]] Result<struct stat> stat(std::string_view path);
[[nodiscard]] Result<struct stat> lstat(std::string_view path);
[[nodiscard]] Result<struct stat> fstat(int fd);
[[nodiscard]] Result<> mkdir(std::string_view path, mode_t mode);
[[nodiscard]] Result<> chmod(std::string_view path, mode_t mode);
[[nodiscard]] Result<> fchmod(int fd, mode_t mode);
[[nodiscard]] Result<> unlink(std::string_view path);
// Replaces `to` (a link there is replaced, never followed).
[[nodiscard]] Result<> rename(std::string_view from, std::string_view to);
[[nodiscard]] Result<std::string> realpath(std::string_view path);
[[nodiscard]] Result<std::string> readlink(std::string_view path);
[[nodiscard]] Result<std::string> getcwd();
// The running executable's path, from /proc/self/exe.
[[nodiscard]] Result<std::string> selfExecutablePath();

[[nodiscard]] bool isatty(int fd);

// The real user id (getuid).
[[nodiscard]] uid_t realUserId();

} // namespace tovel::sys
