// The keeper process's entry: checks the 12 arguments after "--keeper-exec",
// points the standard streams away from the caller's terminal and runs the
// keeper.
#include "keeper/keeper_entry.hpp"

#include "cli/log.hpp"
#include "cli/number.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "keeper/keeper_run.hpp"
#include "platform/system.hpp"

#include <fcntl.h>

namespace tovel {

namespace {

constexpr std::size_t kKeeperArgumentCount = 12;
constexpr mode_t kLogFileMode = 0600;

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
// log file (append mode), or /dev/null when that cannot be opened.
void redirectStandardStreams(std::string_view id) {
    auto null = sys::open("/dev/null", O_RDWR);
    if (null) {
        (void)sys::dup2(null->get(), 0);
        (void)sys::dup2(null->get(), 1);
    }
    auto logPath = sessionPath(id, ".log");
    auto log = logPath ? sys::open(*logPath, O_WRONLY | O_CREAT | O_APPEND, kLogFileMode)
                       : fail(logPath.error());
    if (log)
        (void)sys::dup2(log->get(), 2);
    else if (null)
        (void)sys::dup2(null->get(), 2);
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
