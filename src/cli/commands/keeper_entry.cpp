// The keeper process's entry: checks the 12 arguments after "--keeper-exec",
// points the standard streams away from the caller's terminal and runs the
// keeper.
#include "cli/commands/keeper_entry.hpp"

#include "cli/log.hpp"
#include "cli/number.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "keeper/keeper_run.hpp"
#include "platform/system.hpp"

#include <cstring>
#include <fcntl.h>

namespace tovel {

namespace {

constexpr std::size_t kKeeperArgumentCount = 12;
constexpr std::uint64_t kLogFileCap = 1 << 20;

enum Argument : std::size_t {
    kId,
    kCols,
    kRows,
    kCmd,
    kCwd,
    kReadyFd,
    kWorkspaceId,
    kReplicaId,
    kLeaseGeneration,
    kMigrationId,
    kAgentKind,
    kAdapterId,
};

Result<std::uint16_t> parseDimension(std::string_view text) {
    std::uint16_t value = TRY(parseNumber<std::uint16_t>(text));
    if (value == 0)
        return fail(Error::InvalidDimension);
    return value;
}

Result<SpawnOptions> parseKeeperArguments(Args args) {
    if (args.size() != kKeeperArgumentCount)
        return fail(Error::BadKeeperArgs);
    if (!isValidSessionId(args[kId]))
        return fail(Error::InvalidSessionId);
    SpawnOptions options;
    options.cols = TRY(parseDimension(args[kCols]));
    options.rows = TRY(parseDimension(args[kRows]));
    options.cmd = std::string(args[kCmd]);
    options.cwd = std::string(args[kCwd]);
    PortableMetadata& portable = options.portable;
    portable.workspaceId = std::string(args[kWorkspaceId]);
    portable.replicaId = std::string(args[kReplicaId]);
    portable.migrationId = std::string(args[kMigrationId]);
    portable.agentKind = std::string(args[kAgentKind]);
    portable.adapterId = std::string(args[kAdapterId]);
    return options;
}

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

// Every user can read a process's arguments (ps, /proc/<pid>/cmdline), and
// the command, directory and lease texts may hold secrets. The views point
// into this process's own argument strings, which are writable, so once
// everything is parsed their bytes are zeroed in place: what stays visible
// is the keeper's id and its sizes.
void hideArgumentTexts(Args args) {
    for (std::size_t i = kCmd; i < args.size(); ++i)
        std::memset(const_cast<char*>(args[i].data()), 0, args[i].size());
}

} // namespace

CommandResult runKeeperEntry(Args args) {
    SpawnOptions options = TRY(parseKeeperArguments(args));
    std::string_view readyText = args[kReadyFd];
    if (readyText.empty())
        return fail(Error::InvalidCharacter);
    std::int32_t readyFd = TRY(parseNumber<std::int32_t>(readyText));
    if (readyFd < 0)
        return fail(Error::InvalidReadyFd);
    if (!args[kLeaseGeneration].empty())
        options.portable.leaseGeneration = TRY(parseNumber<std::uint64_t>(args[kLeaseGeneration]));
    TRY(validatePortableMetadata(options.portable));
    hideArgumentTexts(args);

    redirectStandardStreams(args[kId]);
    auto status = runKeeper(args[kId], options, readyFd);
    if (status)
        return *status;
    // Another keeper already serves this id: the launcher learns it from the
    // missing ready byte, and the log stays quiet on purpose.
    if (status.error() != Error::SessionAlreadyRunning)
        logError(LogScope::Keeper, "keeper.run failed: ", status.error());
    return kExitFailure;
}

} // namespace tovel
