// The keeper's hold on its files in the runtime directory, and their repair.
// Logout clean-up or an ageing /tmp removes the directory while the keeper
// and its shell live on; every few seconds the keeper checks that its socket
// path is still its own socket and otherwise recreates what it can: the
// directory (when its parent exists), the lock, the listening socket. The
// caller rewrites the metadata.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tovel {

constexpr std::int64_t kSelfHealIntervalMs = 2000;

// Removes whatever is left at the session's socket path (the session's lock
// or abstract name is held, so it is stale), binds and listens there and
// sets the path's mode to 0600.
[[nodiscard]] Result<UniqueFd> bindSessionSocket(const std::string& path);

class SelfHeal {
  public:
    // `lock` is the held session lock; the socket at `socketPath` has just
    // been bound by this keeper.
    SelfHeal(std::string id, std::string socketPath, UniqueFd lock, std::int64_t nowMs);

    // When the next check is due (monotonic milliseconds).
    [[nodiscard]] std::int64_t nextCheckMs() const { return nextCheckMs_; }

    // Checks when due; returns the new listening socket when the path had to
    // be recreated.
    [[nodiscard]] std::optional<UniqueFd> checkAndRepair(std::int64_t nowMs);

  private:
    struct FileIdentity {
        dev_t device = 0;
        ino_t inode = 0;
    };
    [[nodiscard]] bool socketIsOurs() const;
    void reacquireLock();

    std::string id_;
    std::string socketPath_;
    UniqueFd lock_;
    std::optional<FileIdentity> socket_;
    std::int64_t nextCheckMs_;
};

} // namespace tovel
