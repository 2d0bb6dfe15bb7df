// Signal dispositions and the signal self-pipe.
#include "platform/signal.hpp"

#include "platform/system.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace tovel::sys {

namespace {

constexpr int kMaxSignal = 64;

std::atomic<int> gSignalPipeWriteFd{-1};
char gSignalBytes[kMaxSignal + 1] = {};

void writeSignalByte(int signal) {
    int savedErrno = errno;
    int fd = gSignalPipeWriteFd.load(std::memory_order_relaxed);
    if (fd >= 0 && signal > 0 && signal <= kMaxSignal) {
        char byte = gSignalBytes[signal];
        ssize_t ignored = ::write(fd, &byte, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

Result<> setDisposition(int signal, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    if (::sigaction(signal, &action, nullptr) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace

Result<> setSignalIgnored(int signal) {
    return setDisposition(signal, SIG_IGN, 0);
}

Result<> setSignalDefault(int signal) {
    return setDisposition(signal, SIG_DFL, 0);
}

SignalPipe::SignalPipe(UniqueFd readEnd, UniqueFd writeEnd)
    : readEnd_(std::move(readEnd)), writeEnd_(std::move(writeEnd)) {}

SignalPipe::SignalPipe(SignalPipe&& other) noexcept
    : readEnd_(std::move(other.readEnd_)), writeEnd_(std::move(other.writeEnd_)),
      routed_(std::exchange(other.routed_, 0)) {}

Result<SignalPipe> SignalPipe::create() {
    Pipe pipe = TRY(sys::pipe(O_NONBLOCK));
    gSignalPipeWriteFd.store(pipe.writeEnd.get());
    return SignalPipe(std::move(pipe.readEnd), std::move(pipe.writeEnd));
}

SignalPipe::~SignalPipe() {
    for (int signal = 1; signal <= kMaxSignal; ++signal) {
        if (routed_ & (1ULL << (signal - 1)))
            (void)setSignalDefault(signal);
    }
    if (writeEnd_.valid() && gSignalPipeWriteFd.load() == writeEnd_.get())
        gSignalPipeWriteFd.store(-1);
}

Result<> SignalPipe::route(int signal, char byte) {
    if (signal <= 0 || signal > kMaxSignal)
        return fail(Error::InvalidArgument);
    gSignalBytes[signal] = byte;
    // A stopped or continued child is not an event anyone here waits for.
    int flags = signal == SIGCHLD ? SA_RESTART | SA_NOCLDSTOP : SA_RESTART;
    TRY(setDisposition(signal, writeSignalByte, flags));
    routed_ |= 1ULL << (signal - 1);
    return {};
}

Result<std::size_t> SignalPipe::drain(std::span<char> into) {
    auto got = read(readEnd_.get(), into);
    if (!got && got.error() == Error::WouldBlock)
        return 0;
    return got;
}

} // namespace tovel::sys
