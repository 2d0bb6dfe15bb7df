// Opening paths below a directory descriptor.
#include "platform/beneath.hpp"

#include "platform/retry.hpp"
#include "platform/system.hpp"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <linux/openat2.h>
#include <optional>
#include <sys/syscall.h>
#include <unistd.h>

namespace tovel::sys {

namespace {

// A rename elsewhere in the tree during the walk makes the kernel give up
// with EAGAIN rather than risk a wrong answer; a few retries settle it.
constexpr int kRenameRetries = 16;

// Set once the kernel has said it has no openat2; later calls go straight
// to the per-segment walk.
std::atomic<bool> openat2Missing{false};

// nullopt when the kernel has no openat2.
std::optional<Result<UniqueFd>> openat2Beneath(int directoryFd, const std::string& path,
                                               int flags) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (int attempt = 0;; ++attempt) {
        long opened = retryOnInterrupt(
            [&] { return ::syscall(SYS_openat2, directoryFd, path.c_str(), &how, sizeof how); });
        if (opened >= 0)
            return UniqueFd(static_cast<int>(opened));
        if (errno == EAGAIN && attempt < kRenameRetries)
            continue;
        if (errno == ENOSYS)
            return std::nullopt;
        return fail(errorFromErrno(errno));
    }
}

Result<UniqueFd> openatNoFollow(int directoryFd, const std::string& name, int flags) {
    int opened = retryOnInterrupt(
        [&] { return ::openat(directoryFd, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC); });
    if (opened < 0)
        return fail(errorFromErrno(errno));
    return UniqueFd(opened);
}

// Every segment but the last must be a directory, opened without following
// a link; the last gets the caller's flags, also without following one.
Result<UniqueFd> walkBeneath(int directoryFd, std::string_view relative, int flags) {
    UniqueFd current;
    int at = directoryFd;
    for (;;) {
        std::size_t slash = relative.find('/');
        std::string_view segment = relative.substr(0, slash);
        relative =
            slash == std::string_view::npos ? std::string_view() : relative.substr(slash + 1);
        bool last = relative.find_first_not_of('/') == std::string_view::npos;
        if (segment.empty() && !last)
            continue;
        if (segment == "..")
            return fail(Error::CrossDevice);
        std::string name(segment.empty() ? std::string_view(".") : segment);
        // Without O_DIRECTORY a link on the way fails as a link (ELOOP), as
        // it does through openat2, rather than as "not a directory".
        current = TRY(openatNoFollow(at, name, last ? flags : O_RDONLY | O_NONBLOCK | O_NOCTTY));
        if (last)
            return current;
        struct stat status = TRY(fstat(current.get()));
        if (!S_ISDIR(status.st_mode))
            return fail(Error::NotDir);
        at = current.get();
    }
}

} // namespace

Result<UniqueFd> openBeneath(int directoryFd, std::string_view relative, int flags) {
    std::string path = relative.empty() ? std::string(".") : std::string(relative);
    if (!openat2Missing.load(std::memory_order_relaxed)) {
        auto opened = openat2Beneath(directoryFd, path, flags);
        if (opened)
            return std::move(*opened);
        openat2Missing.store(true, std::memory_order_relaxed);
    }
    return walkBeneath(directoryFd, path, flags);
}

Result<std::string> descriptorPath(int fd) {
    char link[32] = "/proc/self/fd/";
    char* end = std::to_chars(link + 14, link + sizeof link - 1, fd).ptr;
    *end = '\0';
    return readlink(link);
}

Result<std::string> readlinkAt(int directoryFd, std::string_view name) {
    char target[4096];
    ssize_t n = ::readlinkat(directoryFd, cString(name).c_str(), target, sizeof target);
    if (n < 0)
        return fail(errorFromErrno(errno));
    if (static_cast<std::size_t>(n) >= sizeof target)
        return fail(Error::NameTooLong);
    return std::string(target, static_cast<std::size_t>(n));
}

} // namespace tovel::sys
