// The local terminal seen from the attach client: its window size with the
// fallbacks, and raw mode that is always undone when the client ends.
#pragma once

#include "platform/pty.hpp"
#include "platform/result.hpp"

#include <optional>

namespace tovel {

// TIOCGWINSZ on descriptor 0, then on descriptor 1, then 80 x 24; a size
// with a zero counts as a failure.
[[nodiscard]] sys::WindowSize localWindowSize();

// Raw mode on descriptor 0 for the life of the object; the saved settings
// are restored with TCSAFLUSH on destruction.
class RawTerminal {
  public:
    // Does nothing (and succeeds) when descriptor 0 is not a terminal.
    [[nodiscard]] static Result<RawTerminal> enter();
    RawTerminal(RawTerminal&& other) noexcept : saved_(std::exchange(other.saved_, std::nullopt)) {}
    RawTerminal& operator=(RawTerminal&&) = delete;
    ~RawTerminal();

  private:
    explicit RawTerminal(std::optional<termios> saved) : saved_(saved) {}
    std::optional<termios> saved_;
};

} // namespace tovel
