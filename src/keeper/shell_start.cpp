// Opening the session's PTY, forking the shell child and confirming through
// the exec handshake that the shell's program really started.
#include "keeper/shell_start.hpp"

#include "cli/log.hpp"
#include "keeper/shell_plan.hpp"
#include "platform/env.hpp"
#include "platform/pty.hpp"
#include "platform/spawn.hpp"
#include "platform/system.hpp"

#include <csignal>

namespace tovel {

namespace {

constexpr int kExecHandshakeTimeoutMs = 5000;

// The signals whose inherited handlers or ignored state must not reach the
// shell; ignored dispositions survive exec.
constexpr int kSignalsResetInChild[] = {SIGHUP, SIGINT,  SIGQUIT, SIGILL,  SIGTRAP, SIGABRT, SIGBUS,
                                        SIGFPE, SIGSEGV, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD};

// Waits for the child's word: end of file means the exec happened.
Result<> awaitExec(pid_t pid, int pipeFd) {
    pollfd entry{pipeFd, POLLIN, 0};
    auto ready = sys::poll(std::span(&entry, 1), kExecHandshakeTimeoutMs);
    if (!ready)
        return fail(Error::ShellExecHandshakeFailed);
    if (*ready == 0) {
        logError(LogScope::Keeper, "shell exec timed out pid=", pid);
        return fail(Error::ShellExecTimeout);
    }
    auto failure = readSpawnFailure(pipeFd);
    if (!failure)
        return fail(Error::ShellExecHandshakeFailed);
    if (!*failure)
        return {};
    if ((*failure)->error == Error::SetControllingTerminalFailed)
        logError(LogScope::Pty,
                 "error setting controlling terminal errno=", ErrnoName{(*failure)->osError});
    logError(LogScope::Keeper, "shell exec failed pid=", pid, " reason=", (*failure)->error);
    return fail(Error::ShellExecFailed);
}

} // namespace

Result<ShellProcess> startShell(std::uint16_t cols, std::uint16_t rows, std::string_view cmd,
                                std::string_view cwd) {
    ShellPlan plan = planShell(cmd, cwd, sys::getEnv("SHELL"), sys::getEnv("PATH"));

    sys::Pty pty = TRY(sys::openPty({cols, rows}));
    termios attributes = TRY(sys::terminalAttributes(pty.slave.get()));
    attributes.c_iflag |= IUTF8;
    TRY(sys::setTerminalAttributes(pty.slave.get(), attributes, TCSANOW));
    sys::Pipe handshake = TRY(sys::pipe());

    int slave = pty.slave.get();
    ChildPlan child;
    child.defaultSignals = kSignalsResetInChild;
    child.session = SessionSetup::NewWithTerminal;
    child.terminal = slave;
    child.closeOnExecFrom = 3;
    child.placements = {{slave, 0}, {slave, 1}, {slave, 2}};
    child.cwd = plan.cwd.empty() ? nullptr : plan.cwd.c_str();
    child.cwdError = plan.cwdError;
    child.execError = plan.shellError ? plan.shellError : plan.argvError;
    child.candidates = plan.candidates;
    child.argv = plan.argv.data();
    child.report.recordFd = handshake.writeEnd.get();
    pid_t pid = TRY(spawnChild(child));

    handshake.writeEnd.reset();
    pty.slave.reset();
    if (auto nonBlocking = sys::setNonBlocking(pty.master.get()); !nonBlocking) {
        killGroupAndReap(pid);
        return fail(nonBlocking.error());
    }
    if (auto confirmed = awaitExec(pid, handshake.readEnd.get()); !confirmed) {
        killGroupAndReap(pid);
        return fail(confirmed.error());
    }
    return ShellProcess{std::move(pty.master), pid};
}

} // namespace tovel
