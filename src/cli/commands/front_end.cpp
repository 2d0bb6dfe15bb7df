// Dispatch of the command line: the global --dir pre-scan, the command word,
// `new`, `attach`'s argument checks, `list`'s arguments, version and help,
// and the translation of every outcome into an exit status.
#include "cli/commands/front_end.hpp"

#include "cli/command.hpp"
#include "cli/commands/doctor.hpp"
#include "cli/commands/inspect.hpp"
#include "cli/commands/list.hpp"
#include "cli/commands/preflight.hpp"
#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "cli/spawn_options.hpp"
#include "cli/version.hpp"
#include "client/attach.hpp"
#include "client/connect.hpp"
#include "client/ensure.hpp"
#include "client/kill.hpp"
#include "keeper/keeper_entry.hpp"
#include "client/launcher.hpp"
#include "platform/env.hpp"
#include "platform/system.hpp"
#include "serve/serve_command.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <unistd.h>

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

CommandResult runNew(Args args) {
    auto options = parseSpawnOptions(args, OptionSet::All);
    if (!options)
        return reportInvalidArguments("new", options.error());
    // A base directory that cannot be used is reported as itself, before a
    // keeper is launched that could only fail in the dark.
    TRY(runtimeDir());
    std::string id = TRY(newSessionId());
    if (!sys::setEnv("TOVEL_SHELL_ID", id))
        return fail(Error::SetEnvironmentFailed);
    auto launched = launchKeeper(id, *options);
    if (!launched) {
        printStderr("keeper startup failed: ", launched.error(), "\n");
        return kExitFailure;
    }
    if (*launched != LaunchOutcome::Ready) {
        printStderr("keeper failed to start (id=", id, ")\n");
        return kExitFailure;
    }
    id.push_back('\n');
    printStdout(id);
    return kExitSuccess;
}

CommandResult runAttach(Args args) {
    if (args.empty()) {
        printStderr("usage: tovel-ptyd attach <id> [--dir PATH]\n");
        return kExitUsage;
    }
    if (!isValidSessionId(args[0])) {
        printStderr("attach: id must be 32 lowercase-hex chars\n");
        return kExitUsage;
    }
    if (args.size() != 1) {
        if (args.size() != 3 || args[1] != "--dir")
            return reportInvalidArguments("attach", Error::UnknownOption);
        if (!isAbsoluteDirectory(args[2]))
            return reportInvalidArguments("attach", Error::InvalidDirectory);
    }
    return attachSession(args[0], PortableMetadata{});
}

CommandResult runList(Args args) {
    bool json = false;
    bool dirSeen = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            if (json)
                return reportInvalidArguments("list", Error::DuplicateOption);
            json = true;
        } else if (args[i] == "--dir") {
            if (dirSeen)
                return reportInvalidArguments("list", Error::DuplicateOption);
            if (i + 1 >= args.size())
                return reportInvalidArguments("list", Error::MissingOptionValue);
            if (!isAbsoluteDirectory(args[i + 1]))
                return reportInvalidArguments("list", Error::InvalidDirectory);
            dirSeen = true;
            ++i;
        } else {
            return reportInvalidArguments("list", Error::UnknownOption);
        }
    }
    return listSessions(json ? OutputFormat::Json : OutputFormat::Text);
}

using Handler = CommandResult (*)(Args);

struct Command {
    std::string_view word;
    Handler handler;
};

CommandResult printVersion(Args) {
    std::string line = "tovel-ptyd v";
    line.append(kVersion);
    line.push_back('\n');
    printStdout(line);
    return kExitSuccess;
}

CommandResult printHelp(Args) {
    printStdout(kUsageText);
    return kExitSuccess;
}

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
