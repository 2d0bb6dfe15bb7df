// The session's lock file.
#include "keeper/session_lock.hpp"

#include "cli/runtime_dir.hpp"
#include "platform/file_lock.hpp"
#include "platform/system.hpp"

#include <fcntl.h>

namespace tovel {

namespace {

constexpr mode_t kLockFileMode = 0600;

Error lockError(Error error) {
    return narrowError(error, {Error::WouldBlock},
                       {{Error::OperationNotSupported, Error::FileLocksNotSupported}});
}

// Whether the locked file has left `path`: a keeper that ends removes its
// lock file while it still holds it, and a lock taken on that removed file
// guards nothing.
bool removedMeanwhile(int fd, std::string_view path) {
    auto held = sys::fstat(fd);
    auto named = sys::lstat(path);
    if (!held)
        return false;
    if (!named)
        return named.error() == Error::FileNotFound;
    return held->st_dev != named->st_dev || held->st_ino != named->st_ino;
}

} // namespace

Result<UniqueFd> acquireSessionLock(std::string_view id) {
    std::string path = TRY(sessionPath(id, ".lock"));
    for (;;) {
        UniqueFd fd = TRY(sys::open(path, O_RDWR | O_CREAT | O_NOFOLLOW, kLockFileMode));
        if (auto locked = sys::lockExclusiveNonBlocking(fd.get()); !locked)
            return fail(lockError(locked.error()));
        if (!removedMeanwhile(fd.get(), path))
            return fd;
    }
}

Result<LockState> probeSessionLock(std::string_view id) {
    std::string path = TRY(sessionPath(id, ".lock"));
    return probeLockFile(path);
}

Result<LockState> probeLockFile(std::string_view path) {
    auto fd = sys::open(path, O_RDWR | O_NOFOLLOW);
    if (!fd && fd.error() == Error::FileNotFound)
        return LockState::Free;
    if (!fd)
        return fail(fd.error());
    auto locked = sys::lockExclusiveNonBlocking(fd->get());
    if (!locked && locked.error() == Error::WouldBlock)
        return LockState::Held;
    if (!locked)
        return fail(lockError(locked.error()));
    return LockState::Free; // closing the descriptor releases it at once
}

} // namespace tovel
