// The `preflight` command: before a remote session is opened, tells whether
// an existing session can be re-attached, or whether the working directory
// and the tool a new session needs are usable here.
#include "cli/commands/preflight.hpp"

#include "cli/commands/session_listing.hpp"
#include "cli/log.hpp"
#include "cli/version.hpp"
#include "keeper/shell_plan.hpp"
#include "platform/clock.hpp"
#include "platform/env.hpp"
#include "platform/process.hpp"
#include "platform/spawn.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/wait.h>

namespace tovel {

namespace {

constexpr int kProbePolls = 500;
constexpr int kProbePollIntervalMs = 10;
// Starts as an interactive login shell so that the user's start-up files
// set the search path, then becomes a plain shell running the check.
constexpr std::string_view kProbeScript = "trap - TERM; exec \"$1\" -c \"$2\"";
constexpr std::string_view kProbeScriptName = "tovel-preflight";

struct PreflightRequest {
    std::optional<std::string_view> session;
    std::optional<std::string_view> cwd;
    std::optional<std::string_view> executable;
    OutputFormat format = OutputFormat::Text;
};

Result<> takeValue(Args args, std::size_t& i, std::optional<std::string_view>& slot) {
    if (slot)
        return fail(Error::DuplicateOption);
    if (i + 1 >= args.size())
        return fail(Error::MissingOptionValue);
    slot = args[++i];
    return {};
}

Result<PreflightRequest> parsePreflightArguments(Args args) {
    PreflightRequest request;
    std::optional<std::string_view> dir;
    bool sawJson = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--session") {
            TRY(takeValue(args, i, request.session));
        } else if (args[i] == "--cwd") {
            TRY(takeValue(args, i, request.cwd));
        } else if (args[i] == "--executable") {
            TRY(takeValue(args, i, request.executable));
        } else if (args[i] == "--dir") {
            TRY(takeValue(args, i, dir));
            if (dir->empty() || dir->front() != '/')
                return fail(Error::InvalidDirectory);
        } else if (args[i] == "--json") {
            if (sawJson)
                return fail(Error::DuplicateOption);
            sawJson = true;
            request.format = OutputFormat::Json;
        } else {
            return fail(Error::UnknownOption);
        }
    }
    return request;
}

struct DirectoryProblem {
    std::string_view code;
    std::string_view message;
};

std::optional<DirectoryProblem> checkDirectory(std::string_view cwd) {
    auto opened = sys::open(cwd, O_RDONLY | O_DIRECTORY);
    if (opened)
        return std::nullopt;
    switch (opened.error()) {
    case Error::FileNotFound:
    case Error::NotDir:
        return DirectoryProblem{"missing_directory", "The remote directory does not exist."};
    case Error::AccessDenied:
        return DirectoryProblem{"directory_not_accessible",
                                "The remote directory is not accessible."};
    default:
        return DirectoryProblem{"directory_unavailable",
                                "The remote directory could not be opened."};
    }
}

enum class ToolState { Present, Missing };

// Asks the user's login shell whether `tool` is on its search path. The
// name goes into the command unescaped: quoting it is the caller's job.
Result<ToolState> probeTool(std::string_view tool) {
    auto shellVariable = sys::getEnv("SHELL");
    std::string shell(shellVariable.value_or(kFallbackShell));
    if (shell.size() > kMaxShellPathLength)
        return ToolState::Missing;
    std::string command = "command -v -- \"";
    command.append(tool).append("\" >/dev/null 2>&1");
    std::vector<std::string> arguments = {
        shell, "-lic", std::string(kProbeScript), std::string(kProbeScriptName), shell, command};
    std::vector<char*> argv = argumentPointers(arguments);
    std::vector<std::string> candidates = programCandidates(shell, sys::getEnv("PATH"));
    UniqueFd null = TRY(sys::open("/dev/null", O_RDWR));

    ChildPlan child;
    child.placements = {{null.get(), 1}, {null.get(), 2}};
    child.candidates = candidates;
    child.argv = argv.data();
    child.report = {.messageFd = 2, .messagePrefix = "preflight: failed to execute login shell: "};
    auto pid = spawnChild(child);
    if (!pid)
        return fail(processCreationError(pid.error()));

    for (int poll = 0; poll < kProbePolls; ++poll) {
        auto waited = sys::waitpid(*pid, sys::WaitMode::NoHang);
        if (waited && waited->pid == *pid) {
            bool present = WIFEXITED(waited->status) && WEXITSTATUS(waited->status) == 0;
            return present ? ToolState::Present : ToolState::Missing;
        }
        (void)sys::sleepMs(kProbePollIntervalMs);
    }
    killGroupAndReap(*pid);
    return ToolState::Missing;
}

void writeHead(JsonWriter& json, bool reattach) {
    json.beginObject();
    json.key("protocol_version");
    json.number(1);
    json.key("helper_version");
    json.string(kVersion);
    json.key("capabilities");
    json.beginArray();
    json.string("interactive_login_shell");
    json.endArray();
    json.key("reattach");
    json.boolean(reattach);
}

void writeNotReady(JsonWriter& json, std::string_view code, std::string_view subjectKey,
                   std::string_view subject, std::string_view message) {
    json.key("ready");
    json.boolean(false);
    json.key("error");
    json.beginObject();
    json.key("code");
    json.string(code);
    json.key(subjectKey);
    json.string(subject);
    json.key("message");
    json.string(message);
    json.endObject();
    json.endObject();
}

} // namespace

CommandResult runPreflight(Args args) {
    auto request = parsePreflightArguments(args);
    if (!request)
        return reportInvalidArguments("preflight", request.error());

    std::vector<SessionEntry> sessions = TRY(enumerateLiveSessions());
    bool found = request->session &&
                 std::any_of(sessions.begin(), sessions.end(), [&](const SessionEntry& entry) {
                     return entry.id == *request->session;
                 });
    bool json = request->format == OutputFormat::Json;
    JsonWriter answer;
    if (json)
        writeHead(answer, found);

    std::string_view cwd = request->cwd.value_or("");
    std::string_view tool = request->executable.value_or("");
    if (!found && !cwd.empty()) {
        if (auto problem = checkDirectory(cwd)) {
            if (!json) {
                printStderr("preflight: working directory is unavailable: ", cwd, "\n");
                return kExitFailure;
            }
            writeNotReady(answer, problem->code, "path", cwd, problem->message);
            printStdout(answer.text() + "\n");
            return kExitSuccess;
        }
    }
    if (!found && !tool.empty() && TRY(probeTool(tool)) == ToolState::Missing) {
        if (!json) {
            printStderr("preflight: executable is unavailable: ", tool, "\n");
            return kExitFailure;
        }
        writeNotReady(answer, "executable_missing", "executable", tool,
                      "The requested tool is not executable on the remote PATH.");
        printStdout(answer.text() + "\n");
        return kExitSuccess;
    }
    if (!json) {
        printStdout("ready\n");
        return kExitSuccess;
    }
    answer.key("ready");
    answer.boolean(true);
    answer.key("sessions");
    answer.beginArray();
    for (const auto& entry : sessions)
        writeSessionJson(answer, entry);
    answer.endArray();
    answer.endObject();
    printStdout(answer.text() + "\n");
    return kExitSuccess;
}

} // namespace tovel
