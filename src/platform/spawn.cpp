// The child side of a spawn (async-signal-safe steps of a prepared plan) and
// its parent-side counterparts: the failure record and the final kill.
#include "platform/spawn.hpp"

#include "platform/process.hpp"
#include "platform/pty.hpp"
#include "platform/signal.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

extern char** environ;

namespace tovel {

namespace {

SpawnFailure failedCall(Error error) {
    return {error, errno};
}

// The working-directory failures a child reports, coarser than the general
// errno names.
Error chdirError(Error error) {
    return narrowError(
        error, {Error::AccessDenied, Error::FileNotFound, Error::NotDir, Error::NameTooLong},
        {{Error::PermissionDenied, Error::AccessDenied},
         {Error::InputOutput, Error::FileSystem},
         {Error::SymLinkLoop, Error::FileSystem}});
}

// Executes the first candidate that runs, as execvp does; returns only on
// failure, with the error to report.
Error execCandidates(std::span<const std::string> candidates, char* const argv[]) {
    Error reported = Error::FileNotFound;
    bool sawAccessDenied = false;
    for (const auto& candidate : candidates) {
        Error error = sys::execve(candidate.c_str(), argv, environ).error();
        if (error == Error::AccessDenied)
            sawAccessDenied = true;
        reported = error;
        if (error != Error::FileNotFound && error != Error::NotDir && error != Error::AccessDenied)
            break;
    }
    // A permission failure on any candidate is more telling than a later
    // "not found".
    return sawAccessDenied && reported != Error::InvalidExe ? Error::AccessDenied : reported;
}

// Kernels before 5.11 lack CLOSE_RANGE_CLOEXEC; there every possible
// descriptor is marked in turn, up to this many.
constexpr rlim_t kMaxDescriptorScan = 1 << 20;

Result<> markCloseOnExecFrom(int first) {
    if (::close_range(static_cast<unsigned>(first), ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return {};
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return fail(errorFromErrno(errno));
    rlim_t end = std::min(limit.rlim_cur, kMaxDescriptorScan);
    for (rlim_t fd = static_cast<rlim_t>(first); fd < end; ++fd)
        (void)::fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC); // EBADF: not open
    return {};
}

// The session step; in a Detached plan only the grandchild returns.
std::optional<SpawnFailure> setUpSession(const ChildPlan& plan) {
    if (plan.session == SessionSetup::Inherit)
        return std::nullopt;
    if (!sys::setsid())
        return failedCall(Error::ProcessGroupFailed);
    if (plan.session == SessionSetup::NewWithTerminal) {
        if (!sys::setControllingTerminal(plan.terminal))
            return failedCall(Error::SetControllingTerminalFailed);
        return std::nullopt;
    }
    auto pid = sys::fork();
    if (!pid)
        return failedCall(pid.error());
    if (*pid != 0)
        sys::exitImmediately(0);
    return std::nullopt;
}

// Runs only in the forked child; returns only on failure.
SpawnFailure runPlan(const ChildPlan& plan) {
    for (int signal : plan.defaultSignals)
        (void)sys::setSignalDefault(signal);
    if (auto failed = setUpSession(plan))
        return *failed;
    if (plan.closeOnExecFrom >= 0) {
        if (auto marked = markCloseOnExecFrom(plan.closeOnExecFrom); !marked)
            return failedCall(marked.error());
    }
    for (const FdPlacement& placement : plan.placements) {
        // dup2 onto itself would leave the descriptor close-on-exec.
        auto placed = placement.from == placement.to ? sys::setCloseOnExec(placement.to, false)
                                                     : sys::dup2(placement.from, placement.to);
        if (!placed)
            return failedCall(placed.error());
    }
    if (plan.cwd != nullptr) {
        if (plan.cwdError)
            return {*plan.cwdError, 0};
        if (auto changed = sys::chdir(plan.cwd); !changed)
            return failedCall(chdirError(changed.error()));
    }
    if (plan.execError)
        return {*plan.execError, 0};
    Error error = execCandidates(plan.candidates, plan.argv);
    int osError = errno;
    if (plan.report.messageFd >= 0) {
        (void)sys::write(plan.report.messageFd, plan.report.messagePrefix);
        (void)sys::write(plan.report.messageFd, errorName(error));
        (void)sys::write(plan.report.messageFd, "\n");
    }
    return {error, osError};
}

[[noreturn]] void reportFailure(const FailureReport& report, SpawnFailure failure) {
    if (report.recordFd >= 0)
        (void)sys::write(report.recordFd,
                         std::string_view(reinterpret_cast<const char*>(&failure), sizeof failure));
    if (report.byteFd >= 0)
        (void)sys::write(report.byteFd, std::string_view(&report.byte, 1));
    sys::exitImmediately(kSpawnFailureStatus);
}

} // namespace

Result<pid_t> spawnChild(const ChildPlan& plan) {
    pid_t pid = TRY(sys::fork());
    if (pid == 0)
        reportFailure(plan.report, runPlan(plan));
    return pid;
}

Result<std::optional<SpawnFailure>> readSpawnFailure(int fd) {
    SpawnFailure record;
    char bytes[sizeof record];
    std::size_t got = TRY(sys::read(fd, std::span(bytes, sizeof bytes)));
    if (got == 0)
        return std::nullopt;
    // The record is written at once and is far below the pipe's atomic size.
    if (got != sizeof record)
        return fail(Error::Unexpected);
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

void killGroupAndReap(pid_t leader) {
    (void)sys::killProcessGroup(leader, SIGKILL);
    (void)sys::kill(leader, SIGKILL);
    (void)sys::waitpid(leader, sys::WaitMode::Block);
}

std::vector<std::string> programCandidates(std::string_view program,
                                           std::optional<std::string_view> pathVariable) {
    if (program.empty() || program.find('/') != std::string_view::npos)
        return {std::string(program)};
    std::string_view search = pathVariable.value_or(kDefaultSearchPath);
    std::vector<std::string> candidates;
    for (;;) {
        std::size_t colon = search.find(':');
        std::string_view directory = search.substr(0, colon);
        // An empty entry means the current directory, as in the shell.
        std::string candidate = directory.empty() ? std::string(".") : std::string(directory);
        if (candidate.back() != '/')
            candidate.push_back('/');
        candidate.append(program);
        candidates.push_back(std::move(candidate));
        if (colon == std::string_view::npos)
            break;
        search.remove_prefix(colon + 1);
    }
    return candidates;
}

std::vector<char*> argumentPointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (auto& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace tovel
