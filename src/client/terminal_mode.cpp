// The local terminal: window size and raw mode.
#include "client/terminal_mode.hpp"

#include "platform/system.hpp"

namespace tovel {

namespace {

constexpr sys::WindowSize kFallbackSize{80, 24};

std::optional<sys::WindowSize> usableSize(int fd) {
    auto size = sys::windowSize(fd);
    if (!size || size->cols == 0 || size->rows == 0)
        return std::nullopt;
    return *size;
}

} // namespace

sys::WindowSize localWindowSize() {
    if (auto size = usableSize(0))
        return *size;
    if (auto size = usableSize(1))
        return *size;
    return kFallbackSize;
}

Result<RawTerminal> RawTerminal::enter() {
    if (!sys::isatty(0))
        return RawTerminal(std::nullopt);
    auto saved = sys::terminalAttributes(0);
    if (!saved)
        return fail(narrowError(saved.error(), {Error::NotATerminal}));
    termios raw = *saved;
    raw.c_iflag &=
        ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    raw.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    raw.c_cflag &= ~static_cast<tcflag_t>(PARENB);
    raw.c_cflag |= CS8;
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    if (auto applied = sys::setTerminalAttributes(0, raw, TCSAFLUSH); !applied)
        return fail(narrowError(applied.error(), {Error::NotATerminal},
                                {{Error::InputOutput, Error::ProcessOrphaned}}));
    return RawTerminal(*saved);
}

RawTerminal::~RawTerminal() {
    if (saved_)
        (void)sys::setTerminalAttributes(0, *saved_, TCSAFLUSH);
}

} // namespace tovel
