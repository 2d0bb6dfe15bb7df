// Signal dispositions and the self-pipe that turns signals into bytes a poll
// loop can read. Handlers only write one byte; everything else happens in the
// loop.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstddef>
#include <span>

namespace tovel::sys {

[[nodiscard]] Result<> setSignalIgnored(int signal);
[[nodiscard]] Result<> setSignalDefault(int signal);

// The process's one signal self-pipe. route() makes a signal write `byte`
// into the pipe's non-blocking write end; a full pipe drops the byte (the
// reader already has one pending). Destroying it restores the routed
// signals' defaults.
class SignalPipe {
  public:
    [[nodiscard]] static Result<SignalPipe> create();
    SignalPipe(SignalPipe&&) noexcept;
    SignalPipe& operator=(SignalPipe&&) = delete;
    SignalPipe(const SignalPipe&) = delete;
    ~SignalPipe();

    // Handlers are installed with SA_RESTART (and SA_NOCLDSTOP for SIGCHLD).
    [[nodiscard]] Result<> route(int signal, char byte);

    [[nodiscard]] int readFd() const { return readEnd_.get(); }
    // Reads pending bytes (non-blocking); 0 when none are pending.
    [[nodiscard]] Result<std::size_t> drain(std::span<char> into);

  private:
    SignalPipe(UniqueFd readEnd, UniqueFd writeEnd);
    UniqueFd readEnd_;
    UniqueFd writeEnd_;
    unsigned long long routed_ = 0; // bit n set: signal n routed here
};

} // namespace tovel::sys
