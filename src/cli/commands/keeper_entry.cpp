// The keeper process's entry: decodes the arguments after "--keeper-exec",
// points the standard streams away from the caller's terminal and runs the
// keeper.
#include "cli/commands/keeper_entry.hpp"

#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "client/protocol/keeper_arguments.hpp"
#include "keeper/keeper_run.hpp"
#include "platform/system.hpp"

#include <fcntl.h>

namespace tovel {

namespace {

constexpr std::uint64_t kLogFileCap = 1 << 20;

// Standard input and output become /dev/null; standard error the session's
// capped log file, or /dev/null when that cannot be opened.
void redirectStandardStreams(std::string_view id) {
    auto null = sys::open("/dev/null", O_RDWR);
    if (null) {
        (void)sys::dup2(null->get(), 0);
        (void)sys::dup2(null->get(), 1);
    }
    auto logPath = sessionPath(id, ".log");
    auto log = logPath ? sendStderrToLogFile(*logPath, kLogFileCap) : fail(logPath.error());
    if (!log && null)
        (void)sys::dup2(null->get(), 2);
}

} // namespace

CommandResult runKeeperEntry(Args args) {
    KeeperLaunch launch = TRY(decodeKeeperArguments(args));
    hideKeeperSecrets(args);

    redirectStandardStreams(launch.id);
    auto status = runKeeper(launch.id, launch.options, launch.readyFd);
    if (status)
        return *status;
    // Another keeper already serves this id: the launcher learns it from the
    // missing ready byte, and the log stays quiet on purpose.
    if (status.error() != Error::SessionAlreadyRunning)
        logError(LogScope::Keeper, "keeper.run failed: ", status.error());
    return kExitFailure;
}

} // namespace tovel
