// Checking and recreating the keeper's session files.
#include "keeper/self_heal.hpp"

#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "keeper/session_lock.hpp"
#include "platform/socket.hpp"
#include "platform/system.hpp"

namespace tovel {

namespace {

constexpr int kListenBacklog = 8;
constexpr mode_t kSocketMode = 0600;

} // namespace

Result<UniqueFd> bindSessionSocket(const std::string& path) {
    (void)sys::unlink(path);
    UniqueFd fd = TRY(sys::listenUnix(path, kListenBacklog));
    if (auto changed = sys::chmod(path, kSocketMode); !changed) {
        (void)sys::unlink(path);
        return fail(changed.error());
    }
    return fd;
}

SelfHeal::SelfHeal(std::string id, std::string socketPath, UniqueFd lock, std::int64_t nowMs)
    : id_(std::move(id)), socketPath_(std::move(socketPath)), lock_(std::move(lock)),
      nextCheckMs_(nowMs + kSelfHealIntervalMs) {
    if (auto status = sys::lstat(socketPath_))
        socket_ = FileIdentity{status->st_dev, status->st_ino};
}

bool SelfHeal::socketIsOurs() const {
    auto status = sys::lstat(socketPath_);
    return status && socket_ && S_ISSOCK(status->st_mode) && status->st_dev == socket_->device &&
           status->st_ino == socket_->inode;
}

void SelfHeal::reacquireLock() {
    auto path = sessionPath(id_, ".lock");
    auto onDisk = path ? sys::lstat(*path) : fail(path.error());
    auto held = sys::fstat(lock_.get());
    if (onDisk && held && onDisk->st_dev == held->st_dev && onDisk->st_ino == held->st_ino)
        return;
    // Until this succeeds the abstract name alone keeps the id unique.
    if (auto lock = acquireSessionLock(id_))
        lock_ = std::move(*lock);
}

std::optional<UniqueFd> SelfHeal::checkAndRepair(std::int64_t nowMs) {
    if (nowMs < nextCheckMs_)
        return std::nullopt;
    nextCheckMs_ = nowMs + kSelfHealIntervalMs;
    if (socketIsOurs())
        return std::nullopt;
    // Nothing can be recreated while the directory's parent is missing;
    // the next check tries again, silently.
    if (!recreateRuntimeDir())
        return std::nullopt;
    reacquireLock();
    auto listener = bindSessionSocket(socketPath_);
    if (!listener) {
        logWarning(LogScope::Keeper, "failed to recreate session socket: ", listener.error());
        return std::nullopt;
    }
    auto status = sys::lstat(socketPath_);
    socket_ = status ? std::optional(FileIdentity{status->st_dev, status->st_ino}) : std::nullopt;
    logInfo(LogScope::Keeper, "recreated session socket sock=", socketPath_);
    return std::move(*listener);
}

} // namespace tovel
