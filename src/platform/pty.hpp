// Pseudo-terminals and terminal attributes: openpty, window sizes, termios,
// the controlling terminal.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstdint>

#include <sys/ioctl.h>
#include <sys/types.h>
#include <termios.h>

namespace tovel::sys {

struct WindowSize {
    std::uint16_t cols = 0;
    std::uint16_t rows = 0;
};

struct Pty {
    UniqueFd master;
    UniqueFd slave;
};

// Both ends close-on-exec; the slave starts with `size`.
[[nodiscard]] Result<Pty> openPty(WindowSize size);

[[nodiscard]] Result<WindowSize> windowSize(int fd);
[[nodiscard]] Result<> setWindowSize(int fd, WindowSize size);

[[nodiscard]] Result<termios> terminalAttributes(int fd);
// tcsetattr, retrying EINTR; `when` is TCSANOW, TCSADRAIN or TCSAFLUSH.
[[nodiscard]] Result<> setTerminalAttributes(int fd, const termios& attributes, int when = TCSANOW);

// tcgetpgrp: the terminal's foreground process group.
[[nodiscard]] Result<pid_t> foregroundProcessGroup(int fd);

// TIOCSCTTY: makes `fd` the calling session leader's controlling terminal.
// Async-signal-safe.
[[nodiscard]] Result<> setControllingTerminal(int fd);

} // namespace tovel::sys
