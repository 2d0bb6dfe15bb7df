// Pseudo-terminals and terminal attributes.
#include "platform/pty.hpp"

#include "platform/retry.hpp"
#include "platform/system.hpp"

#include <cerrno>
#include <pty.h>
#include <unistd.h>

namespace tovel::sys {

Result<Pty> openPty(WindowSize size) {
    int master = -1;
    int slave = -1;
    winsize ws{};
    ws.ws_col = size.cols;
    ws.ws_row = size.rows;
    if (::openpty(&master, &slave, nullptr, nullptr, &ws) != 0)
        return fail(errorFromErrno(errno));
    Pty pty{UniqueFd(master), UniqueFd(slave)};
    TRY(setCloseOnExec(pty.master.get(), true));
    TRY(setCloseOnExec(pty.slave.get(), true));
    return pty;
}

Result<WindowSize> windowSize(int fd) {
    winsize ws{};
    if (::ioctl(fd, TIOCGWINSZ, &ws) != 0)
        return fail(errorFromErrno(errno));
    return WindowSize{ws.ws_col, ws.ws_row};
}

Result<> setWindowSize(int fd, WindowSize size) {
    winsize ws{};
    ws.ws_col = size.cols;
    ws.ws_row = size.rows;
    if (::ioctl(fd, TIOCSWINSZ, &ws) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<termios> terminalAttributes(int fd) {
    termios attributes{};
    if (::tcgetattr(fd, &attributes) != 0)
        return fail(errorFromErrno(errno));
    return attributes;
}

Result<> setTerminalAttributes(int fd, const termios& attributes, int when) {
    if (retryOnInterrupt([&] { return ::tcsetattr(fd, when, &attributes); }) < 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<pid_t> foregroundProcessGroup(int fd) {
    pid_t group = ::tcgetpgrp(fd);
    if (group < 0)
        return fail(errorFromErrno(errno));
    return group;
}

Result<> setControllingTerminal(int fd) {
    if (::ioctl(fd, TIOCSCTTY, 0) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace tovel::sys
