// The replay ring: the last 1 MiB of the shell's output, replayed to every
// client that attaches, with the terminal state in force at its oldest byte.
// Allocated once; the oldest bytes are overwritten and pass through the
// state on their way out, so every byte is parsed once.
#pragma once

#include "client/protocol/terminal_state.hpp"

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace tovel {

class ReplayRing {
  public:
    static constexpr std::size_t kCapacity = 1048576;

    // What a new client is sent: the sequences that restore the state the
    // ring's bytes were written in, then the ring from its first byte
    // outside an escape sequence or UTF-8 character, as at most two pieces.
    struct Replay {
        SequenceText preamble;
        std::string_view older;
        std::string_view newer;
        // Whether the output leaves the terminal on the alternate screen.
        bool alternateScreen = false;
    };

    ReplayRing();

    void append(std::string_view bytes);
    [[nodiscard]] Replay replay() const;
    [[nodiscard]] std::size_t size() const { return wrapped_ ? kCapacity : position_; }

    // The content, oldest first, as at most two pieces.
    [[nodiscard]] std::pair<std::string_view, std::string_view> pieces() const;

  private:
    // Runs the bytes that `incoming` pushes out (its own head included,
    // when it is longer than the ring) through the oldest state.
    void evict(std::string_view incoming);

    std::unique_ptr<char[]> bytes_;
    std::size_t position_ = 0;
    bool wrapped_ = false;
    TerminalState oldest_;
};

} // namespace tovel
