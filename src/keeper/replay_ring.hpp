// The replay ring: the last 1 MiB of the shell's output, replayed to every
// client that attaches. Allocated once; the oldest bytes are overwritten.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace tovel {

class ReplayRing {
  public:
    static constexpr std::size_t kCapacity = 1048576;

    ReplayRing();

    void append(std::string_view bytes);
    // The content, oldest first, as at most two pieces.
    [[nodiscard]] std::pair<std::string_view, std::string_view> pieces() const;
    [[nodiscard]] std::size_t size() const { return wrapped_ ? kCapacity : position_; }

  private:
    std::unique_ptr<char[]> bytes_;
    std::size_t position_ = 0;
    bool wrapped_ = false;
};

} // namespace tovel
