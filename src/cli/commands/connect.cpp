// The `connect` command: creates a session by running this program's own
// `new` as a child, shows a one-line banner, then attaches to the session.
#include "cli/commands/connect.hpp"
#include "platform/decimal.hpp"

#include "cli/commands/attach.hpp"
#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "client/detach_key.hpp"
#include "client/terminal_mode.hpp"
#include "platform/process.hpp"
#include "platform/pty.hpp"
#include "platform/spawn.hpp"
#include "platform/system.hpp"

#include <charconv>
#include <sys/wait.h>
#include <vector>

namespace tovel {

namespace {

constexpr std::size_t kNewOutputSize = 64;
constexpr std::size_t kShortIdLength = 8;

int reportedStatus(int waitStatus) {
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return 128 + WTERMSIG(waitStatus);
    return 1;
}

struct NewOutcome {
    int status = 1;
    bool exitedNormally = false;
    std::string output;
};

// Runs `<self> new --cols C --rows R` with its standard output on a pipe.
Result<NewOutcome> runNewChild(sys::WindowSize size) {
    std::string executable = TRY(sys::selfExecutablePath());
    std::vector<std::string> arguments = {executable,         "new",    "--cols",
                                          decimal(size.cols), "--rows", decimal(size.rows)};
    std::vector<char*> argv = argumentPointers(arguments);

    auto output = sys::pipe();
    if (!output)
        return fail(descriptorCreationError(output.error()));
    ChildPlan child;
    child.placements = {{output->writeEnd.get(), 1}};
    child.candidates = std::span(&executable, 1);
    child.argv = argv.data();
    child.report = {.messageFd = 2, .messagePrefix = "execvpe failed: "};
    pid_t pid = TRY(spawnChild(child));
    output->writeEnd.reset();

    NewOutcome outcome;
    char buffer[kNewOutputSize];
    std::size_t filled = 0;
    while (filled < sizeof buffer) {
        auto got =
            sys::read(output->readEnd.get(), std::span(buffer + filled, sizeof buffer - filled));
        if (!got && got.error() == Error::WouldBlock)
            continue;
        if (!got || *got == 0)
            break;
        filled += *got;
    }
    output->readEnd.reset();
    outcome.output.assign(buffer, filled);
    auto waited = sys::waitpid(pid, sys::WaitMode::Block);
    if (waited) {
        outcome.exitedNormally = WIFEXITED(waited->status);
        outcome.status = reportedStatus(waited->status);
    }
    return outcome;
}

void printBanner(std::string_view id) {
    std::string banner;
    banner.reserve(256);
    banner.append("\x1b[2m[tovel] persistent shell ")
        .append(id.substr(0, kShortIdLength))
        .append(" \u2014 ssh disconnect won't kill it; reattach with `tovel-shellsess attach ")
        .append(id)
        .append("`\x1b[0m\r\n");
    (void)sys::writeAll(1, banner);
}

} // namespace

CommandResult runConnect(Args args) {
    auto options = parseSpawnOptions(args, OptionSet::DimensionsOnly);
    if (!options)
        return reportInvalidArguments("connect", options.error());
    // An unusable detach key is refused before a keeper is started for nothing.
    auto detachKey = DetachKey::fromEnvironment();
    if (!detachKey)
        return reportInvalidDetachKey(detachKey.error());
    sys::WindowSize size{options->cols, options->rows};
    if (sys::isatty(0)) {
        auto terminal = sys::windowSize(0);
        if (terminal && terminal->cols != 0 && terminal->rows != 0)
            size = *terminal;
    }

    // A base directory that cannot be used is reported as itself, here rather
    // than by the child that starts the keeper.
    TRY(runtimeDir());
    NewOutcome created = TRY(runNewChild(size));
    if (!created.exitedNormally || created.status != 0 ||
        created.output.size() < kSessionIdLength) {
        printStderr("failed to spawn keeper (status=", created.status,
                    ", output=", created.output.size(), "b)\n");
        return kExitFailure;
    }
    std::string_view output = created.output;
    std::string_view id = output.substr(
        0, std::min(output.find_first_of(std::string_view("\0\n", 2)), kSessionIdLength));
    if (!isValidSessionId(id)) {
        printStderr("unexpected keeper output: ", output, "\n");
        return kExitFailure;
    }
    printBanner(id);
    PortableMetadata noOwnerCheck;
    AttachEnd end = TRY(attachSession(AttachRequest{id, noOwnerCheck, *detachKey}));
    return finishAttach(end);
}

} // namespace tovel
