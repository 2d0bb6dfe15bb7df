// The `new` command: starts a keeper under a fresh random id and prints the id.
#include "cli/commands/new.hpp"

#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "cli/spawn_options.hpp"
#include "client/launcher.hpp"
#include "platform/env.hpp"

namespace tovel {

CommandResult runNew(Args args) {
    auto options = parseSpawnOptions(args, OptionSet::All);
    if (!options)
        return reportInvalidArguments("new", options.error());
    // A base directory that cannot be used is reported as itself, before a
    // keeper is launched that could only fail in the dark.
    TRY(runtimeDir());
    TRY(checkSocketPathFits());
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

} // namespace tovel
