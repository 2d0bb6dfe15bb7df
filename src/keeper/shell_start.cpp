// Opening the session's PTY, forking the shell child and confirming through
// the exec handshake that the shell's program really started.
#include "keeper/shell_start.hpp"

#include "cli/log.hpp"
#include "keeper/shell_plan.hpp"
#include "platform/env.hpp"
#include "platform/process.hpp"
#include "platform/pty.hpp"
#include "platform/signal.hpp"
#include "platform/system.hpp"

#include <cerrno>
#include <csignal>

namespace tovel {

namespace {

constexpr int kExecHandshakeTimeoutMs = 5000;
constexpr std::size_t kHandshakeReadSize = 256;
constexpr int kChildFailureStatus = 127;

// The signals whose inherited handlers or ignored state must not reach the
// shell; ignored dispositions survive exec.
constexpr int kSignalsResetInChild[] = {SIGHUP, SIGINT,  SIGQUIT, SIGILL,  SIGTRAP, SIGABRT, SIGBUS,
                                        SIGFPE, SIGSEGV, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD};

// The working-directory failures the shell's starter reports, coarser than
// the general errno names.
Error chdirError(Error error) {
    switch (error) {
    case Error::PermissionDenied:
    case Error::AccessDenied:
        return Error::AccessDenied;
    case Error::FileNotFound:
    case Error::NotDir:
    case Error::NameTooLong:
        return error;
    case Error::InputOutput:
    case Error::SymLinkLoop:
        return Error::FileSystem;
    default:
        return Error::Unexpected;
    }
}

// Runs only in the forked child: set up the terminal and exec the shell.
// Returns only on failure, with the error to report.
Error setUpChild(const ShellPlan& plan, sys::Pty& pty) {
    int slave = pty.slave.get();
    for (int signal : kSignalsResetInChild)
        (void)sys::setSignalDefault(signal);
    if (!sys::setsid())
        return Error::ProcessGroupFailed;
    if (auto controlling = sys::setControllingTerminal(slave); !controlling) {
        int saved = errno;
        if (saved != 0) {
            logError(LogScope::Pty, "error setting controlling terminal errno=", ErrnoName{saved});
            return Error::SetControllingTerminalFailed;
        }
    }
    for (int target = 0; target <= 2; ++target) {
        if (auto duplicated = sys::dup2(slave, target); !duplicated)
            return duplicated.error();
    }
    if (slave > 2)
        pty.slave.reset();
    pty.master.reset();
    if (!plan.cwd.empty()) {
        if (plan.cwdError)
            return *plan.cwdError;
        if (auto changed = sys::chdir(plan.cwd.c_str()); !changed)
            return chdirError(changed.error());
    }
    if (plan.shellError)
        return *plan.shellError;
    if (plan.argvError)
        return *plan.argvError;
    return execCandidates(plan.candidates, plan.argv.data());
}

[[noreturn]] void reportChildFailure(int pipeFd, Error error) {
    (void)sys::write(pipeFd, errorName(error));
    sys::exitImmediately(kChildFailureStatus);
}

void killAndReap(pid_t pid) {
    (void)sys::killProcessGroup(pid, SIGKILL);
    (void)sys::kill(pid, SIGKILL);
    (void)sys::waitpid(pid, sys::WaitMode::Block);
}

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
    char reason[kHandshakeReadSize];
    auto got = sys::read(pipeFd, std::span(reason, sizeof reason));
    if (!got)
        return fail(Error::ShellExecHandshakeFailed);
    if (*got == 0)
        return {};
    logError(LogScope::Keeper, "shell exec failed pid=", pid,
             " reason=", std::string_view(reason, *got));
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

    pid_t pid = TRY(sys::fork());
    if (pid == 0) {
        handshake.readEnd.reset();
        Error error = setUpChild(plan, pty);
        reportChildFailure(handshake.writeEnd.get(), error);
    }

    handshake.writeEnd.reset();
    pty.slave.reset();
    if (auto nonBlocking = sys::setNonBlocking(pty.master.get()); !nonBlocking) {
        killAndReap(pid);
        return fail(nonBlocking.error());
    }
    if (auto confirmed = awaitExec(pid, handshake.readEnd.get()); !confirmed) {
        killAndReap(pid);
        return fail(confirmed.error());
    }
    return ShellProcess{std::move(pty.master), pid};
}

} // namespace tovel
