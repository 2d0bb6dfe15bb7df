// Dispatch of the command line: the global --dir pre-scan, the command word,
// and the translation of every outcome into an exit status. Each command
// lives in a file of its own beside this one.
#include "cli/commands/front_end.hpp"

#include "cli/commands/attach.hpp"
#include "cli/commands/command.hpp"
#include "cli/commands/connect.hpp"
#include "cli/commands/doctor.hpp"
#include "cli/commands/ensure.hpp"
#include "cli/commands/inspect.hpp"
#include "cli/commands/keeper_entry.hpp"
#include "cli/commands/kill.hpp"
#include "cli/commands/list.hpp"
#include "cli/commands/new.hpp"
#include "cli/commands/preflight.hpp"
#include "cli/commands/serve.hpp"
#include "cli/commands/usage.hpp"
#include "cli/log.hpp"
#include "platform/env.hpp"

#include <algorithm>
#include <array>
#include <optional>

namespace tovel {

namespace {

// Options whose next argument is a value, as far as the pre-scan knows.
constexpr std::array<std::string_view, 11> kValueOptions{
    "--cmd",       "--cwd",  "--dir",        "--workspace-id",     "--migration-id",
    "--cols",      "--rows", "--replica-id", "--lease-generation", "--agent-kind",
    "--adapter-id"};

bool isAbsoluteDirectory(std::string_view value) {
    return !value.empty() && value.front() == '/';
}

// Finds a global --dir after the command word and exports it as
// TOVEL_PTYD_DIR. Returns an exit status when the command line must stop.
std::optional<int> applyGlobalDir(Args args) {
    std::optional<std::string_view> dir;
    std::size_t i = 1;
    while (i < args.size()) {
        if (std::find(kValueOptions.begin(), kValueOptions.end(), args[i]) == kValueOptions.end()) {
            ++i;
            continue;
        }
        if (i + 1 >= args.size())
            return reportInvalidArguments(args[0], Error::MissingOptionValue);
        if (args[i] == "--dir") {
            if (dir)
                return reportInvalidArguments(args[0], Error::DuplicateOption);
            if (!isAbsoluteDirectory(args[i + 1]))
                return reportInvalidArguments(args[0], Error::InvalidDirectory);
            dir = args[i + 1];
        }
        i += 2;
    }
    if (dir && !sys::setEnv("TOVEL_PTYD_DIR", *dir)) {
        printStderr(args[0], ": failed to set --dir\n");
        return kExitFailure;
    }
    return std::nullopt;
}

using Handler = CommandResult (*)(Args);

struct Command {
    std::string_view word;
    Handler handler;
};

constexpr std::array<Command, 15> kCommands{{
    {"new", runNew},
    {"list", runList},
    {"attach", runAttach},
    {"ensure", runEnsure},
    {"inspect", runInspect},
    {"preflight", runPreflight},
    {"kill", runKill},
    {"connect", runConnect},
    {"serve", runServe},
    {"doctor", runDoctor},
    {"--keeper-exec", runKeeperEntry},
    {"--version", printVersion},
    {"-v", printVersion},
    {"--help", printHelp},
    {"-h", printHelp},
}};

int finish(CommandResult result) {
    if (result)
        return *result & 0xff;
    logError(result.error());
    return kExitFailure;
}

} // namespace

int runFrontEnd(std::span<const std::string_view> args) {
    if (args.empty()) {
        printStdout(kUsageText);
        return kExitUsage;
    }
    if (args[0] != "--keeper-exec" && args.size() > 1) {
        if (auto status = applyGlobalDir(args))
            return *status;
    }
    for (const auto& command : kCommands) {
        if (command.word == args[0])
            return finish(command.handler(args.subspan(1)));
    }
    printStderr("unknown subcommand: ", args[0], "\n");
    printStdout(kUsageText);
    return kExitUsage;
}

} // namespace tovel
