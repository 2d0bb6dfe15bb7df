// A move-only owner of one file descriptor. It closes exactly once and never
// retries close: on Linux the descriptor is gone even when close reports EINTR.
#pragma once

#include <utility>

namespace tovel {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    // Gives up ownership without closing.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

} // namespace tovel
