// A growable byte queue with a read offset and a hard bound on unsent bytes:
// a client's output queue (8 MiB) and the shared PTY input queue (1 MiB).
#pragma once

#include "platform/result.hpp"

#include <cstddef>
#include <string>
#include <string_view>

namespace tovel {

class ByteQueue {
  public:
    explicit ByteQueue(std::size_t bound) : bound_(bound) {}

    [[nodiscard]] std::size_t pending() const { return bytes_.size() - offset_; }
    [[nodiscard]] bool empty() const { return pending() == 0; }
    [[nodiscard]] std::size_t room() const { return bound_ - pending(); }
    [[nodiscard]] std::string_view front() const {
        return std::string_view(bytes_).substr(offset_);
    }

    // Appends the pieces as one unit, or nothing: `refusal` when the unsent
    // bytes would exceed the bound.
    [[nodiscard]] Result<> append(std::string_view first, std::string_view second, Error refusal);
    void consume(std::size_t count);
    // Makes room for `count` more bytes at once, so that appending a
    // replay's many frames copies each byte once rather than at every
    // doubling.
    void reserve(std::size_t count);

  private:
    std::string bytes_;
    std::size_t offset_ = 0;
    std::size_t bound_;
};

} // namespace tovel
