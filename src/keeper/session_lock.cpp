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
    switch (error) {
    case Error::WouldBlock:
        return Error::WouldBlock;
    case Error::OperationNotSupported:
        return Error::FileLocksNotSupported;
    default:
        return Error::Unexpected;
    }
}

} // namespace

Result<UniqueFd> acquireSessionLock(std::string_view id) {
    std::string path = TRY(sessionPath(id, ".lock"));
    UniqueFd fd = TRY(sys::open(path, O_RDWR | O_CREAT, kLockFileMode));
    if (auto locked = sys::lockExclusiveNonBlocking(fd.get()); !locked)
        return fail(lockError(locked.error()));
    return fd;
}

Result<LockState> probeSessionLock(std::string_view id) {
    std::string path = TRY(sessionPath(id, ".lock"));
    return probeLockFile(path);
}

Result<LockState> probeLockFile(std::string_view path) {
    auto fd = sys::open(path, O_RDWR);
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
