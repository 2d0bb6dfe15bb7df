// Starting a keeper in the background and waiting for its ready byte.
#include "client/launcher.hpp"
#include "platform/decimal.hpp"

#include "platform/env.hpp"
#include "platform/process.hpp"
#include "platform/system.hpp"

#include <charconv>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <vector>

extern char** environ;

namespace tovel {

namespace {

constexpr int kReadyTimeoutMs = 5000;
constexpr int kLaunchFailureStatus = 127;
constexpr char kReadyByte = 'R';
constexpr char kFailedByte = 'F';

Error forkError(Error error) {
    return error == Error::WouldBlock || error == Error::SystemResources ? Error::SystemResources
                                                                         : Error::Unexpected;
}

// The keeper's 14-entry argument vector; an empty string means absent.
std::vector<std::string> keeperArguments(const std::string& executable, std::string_view id,
                                         const SpawnOptions& options, int readyFd) {
    const PortableMetadata& portable = options.portable;
    return {executable,
            "--keeper-exec",
            std::string(id),
            decimal(options.cols),
            decimal(options.rows),
            options.cmd,
            options.cwd,
            decimal(static_cast<std::uint64_t>(readyFd)),
            portable.workspaceId,
            portable.replicaId,
            portable.leaseGeneration ? decimal(*portable.leaseGeneration) : std::string(),
            portable.migrationId,
            portable.agentKind,
            portable.adapterId};
}

// The first child: a new session, then the keeper-to-be as a grandchild, so
// that the keeper is never a child of the caller.
[[noreturn]] void runFirstChild(int readyFd, const char* executable, char* const argv[]) {
    if (!sys::setsid()) {
        (void)sys::write(readyFd, std::string_view(&kFailedByte, 1));
        sys::exitImmediately(kLaunchFailureStatus);
    }
    auto pid = sys::fork();
    if (!pid)
        sys::exitImmediately(kLaunchFailureStatus);
    if (*pid != 0)
        sys::exitImmediately(0);
    (void)sys::setCloseOnExec(readyFd, false);
    auto failed = sys::execve(executable, argv, environ);
    (void)sys::write(2, "execvpe failed: ");
    (void)sys::write(2, errorName(failed.error()));
    (void)sys::write(2, "\n");
    (void)sys::write(readyFd, std::string_view(&kFailedByte, 1));
    sys::exitImmediately(kLaunchFailureStatus);
}

void reap(pid_t pid) {
    (void)sys::waitpid(pid, sys::WaitMode::Block);
}

// The keeper's shell inherits this environment: TERM missing, empty or
// "dumb" becomes xterm-256color with COLORTERM=truecolor and no TERMINFO.
Result<> prepareTerminalEnvironment() {
    auto term = sys::getEnv("TERM");
    if (term && !term->empty() && *term != "dumb")
        return {};
    if (!sys::setEnv("TERM", "xterm-256color") || !sys::setEnv("COLORTERM", "truecolor") ||
        !sys::unsetEnv("TERMINFO"))
        return fail(Error::SetTerminalEnvironmentFailed);
    return {};
}

} // namespace

Result<LaunchOutcome> launchKeeper(std::string_view id, const SpawnOptions& options) {
    if (!options.cwd.empty())
        TRY(sys::open(options.cwd, O_RDONLY | O_DIRECTORY));
    TRY(prepareTerminalEnvironment());

    auto ready = sys::pipe();
    if (!ready)
        return fail(descriptorCreationError(ready.error()));
    std::string executable = TRY(sys::selfExecutablePath());
    std::vector<std::string> arguments =
        keeperArguments(executable, id, options, ready->writeEnd.get());
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    auto pid = sys::fork();
    if (!pid)
        return fail(forkError(pid.error()));
    if (*pid == 0) {
        ready->readEnd.reset();
        runFirstChild(ready->writeEnd.get(), executable.c_str(), argv.data());
    }

    ready->writeEnd.reset();
    pollfd entry{ready->readEnd.get(), POLLIN, 0};
    auto polled = sys::poll(std::span(&entry, 1), kReadyTimeoutMs);
    if (!polled || *polled == 0) {
        ready->readEnd.reset();
        (void)sys::killProcessGroup(*pid, SIGKILL);
        (void)sys::kill(*pid, SIGKILL);
        reap(*pid);
        return fail(Error::KeeperStartupTimeout);
    }
    char byte = 0;
    auto got = sys::read(ready->readEnd.get(), std::span(&byte, 1));
    ready->readEnd.reset();
    reap(*pid);
    bool isReady = got && *got == 1 && byte == kReadyByte;
    return isReady ? LaunchOutcome::Ready : LaunchOutcome::NotReady;
}

} // namespace tovel
