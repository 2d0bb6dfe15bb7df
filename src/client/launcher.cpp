// Starting a keeper in the background and waiting for its ready byte.
#include "client/launcher.hpp"

#include "client/protocol/keeper_arguments.hpp"
#include "platform/env.hpp"
#include "platform/process.hpp"
#include "platform/spawn.hpp"
#include "platform/system.hpp"

#include <fcntl.h>
#include <string>
#include <vector>

namespace tovel {

namespace {

constexpr int kReadyTimeoutMs = 5000;

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
    int readyFd = ready->writeEnd.get();
    std::vector<std::string> arguments =
        encodeKeeperArguments(executable, KeeperLaunch{std::string(id), options, readyFd});
    std::vector<char*> argv = argumentPointers(arguments);

    // The keeper runs in a grandchild, so that it is never the caller's
    // child; the ready descriptor stays open across its exec.
    ChildPlan child;
    child.session = SessionSetup::Detached;
    child.placements = {{readyFd, readyFd}};
    child.candidates = std::span(&executable, 1);
    child.argv = argv.data();
    child.report = {.messageFd = 2,
                    .messagePrefix = "execvpe failed: ",
                    .byteFd = readyFd,
                    .byte = kKeeperFailedByte};
    auto pid = spawnChild(child);
    if (!pid)
        return fail(processCreationError(pid.error()));

    ready->writeEnd.reset();
    pollfd entry{ready->readEnd.get(), POLLIN, 0};
    auto polled = sys::poll(std::span(&entry, 1), kReadyTimeoutMs);
    if (!polled || *polled == 0) {
        ready->readEnd.reset();
        killGroupAndReap(*pid);
        return fail(Error::KeeperStartupTimeout);
    }
    char byte = 0;
    auto got = sys::read(ready->readEnd.get(), std::span(&byte, 1));
    ready->readEnd.reset();
    (void)sys::waitpid(*pid, sys::WaitMode::Block);
    bool isReady = got && *got == 1 && byte == kKeeperReadyByte;
    return isReady ? LaunchOutcome::Ready : LaunchOutcome::NotReady;
}

} // namespace tovel
