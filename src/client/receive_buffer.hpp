// The attach client's receive buffer: 64 KiB that holds partial frames
// between reads, growing only to fit one larger frame and shrinking back
// once that frame is gone.
#pragma once

#include "platform/result.hpp"

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace tovel {

constexpr std::size_t kReceiveBufferSize = 65536;

class ReceiveBuffer {
  public:
    ReceiveBuffer() : bytes_(kReceiveBufferSize) {}

    // Room for the next read. When the buffer is full, grows it to hold the
    // first frame whole, or fails with InvalidFrame for a bad length.
    [[nodiscard]] Result<std::span<char>> freeSpace();
    void filled(std::size_t count) { used_ += count; }
    [[nodiscard]] std::string_view data() const { return {bytes_.data(), used_}; }
    // Drops the first `count` bytes and shrinks back to 64 KiB when the rest fits.
    void consume(std::size_t count);
    void clear();
    [[nodiscard]] std::size_t capacity() const { return bytes_.size(); }

  private:
    std::vector<char> bytes_;
    std::size_t used_ = 0;
};

} // namespace tovel
