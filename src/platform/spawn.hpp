// Starting a child program from a plan made entirely before the fork, and
// ending a child together with its process group. Between fork and exec the
// child only follows the plan with async-signal-safe calls: it allocates
// nothing and takes no locks.
#pragma once

#include "platform/error.hpp"
#include "platform/result.hpp"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace tovel {

// The status of a child whose plan or exec failed.
constexpr int kSpawnFailureStatus = 127;
constexpr std::string_view kDefaultSearchPath = "/usr/local/bin:/bin/:/usr/bin";

// A descriptor the child's program gets at the number `to`; with `from` equal
// to `to` the descriptor stays where it is. Every descriptor this program
// opens is close-on-exec from birth, so the program receives these, and
// whatever this process itself inherited without close-on-exec (see
// ChildPlan::closeOnExecFrom). Placements happen in order, so a `from` must
// not be an earlier placement's `to`.
struct FdPlacement {
    int from = -1;
    int to = -1;
};

enum class SessionSetup {
    Inherit,         // the caller's session and process group
    NewWithTerminal, // a new session whose controlling terminal is `terminal`
    // A new session, then a second fork: the program runs in a grandchild
    // that is never the caller's child. The pid returned is the intermediate
    // child's, which exits with status 0 once the grandchild exists.
    Detached,
};

// What a failed child writes before it exits with kSpawnFailureStatus. Each
// report goes only where its descriptor is set.
struct FailureReport {
    int recordFd = -1; // a SpawnFailure record, whichever step failed
    // "<messagePrefix><error name>\n" when the exec itself failed.
    int messageFd = -1;
    std::string_view messagePrefix;
    int byteFd = -1; // the single byte `byte`, whichever step failed
    char byte = 0;
};

// The record on FailureReport::recordFd. `osError` is the errno of the call
// that failed, 0 for an error found while planning.
struct SpawnFailure {
    Error error = Error::Unexpected;
    int osError = 0;
};

// The child's steps, in this order: signal dispositions, session, inherited
// descriptors, descriptor placements, working directory, exec. Pointers and spans refer to storage
// the caller keeps alive and unchanged until spawnChild returns.
struct ChildPlan {
    // Set back to their defaults: ignored dispositions survive exec.
    std::span<const int> defaultSignals;
    SessionSetup session = SessionSetup::Inherit;
    int terminal = -1; // with NewWithTerminal
    // From this number up, every descriptor is made close-on-exec before the
    // placements, so that none this process inherited from its own caller
    // reaches the program; -1 leaves them.
    int closeOnExecFrom = -1;
    std::vector<FdPlacement> placements;
    const char* cwd = nullptr; // nullptr: the caller's directory
    // Errors found while planning, reported at their step instead of
    // attempting it.
    std::optional<Error> cwdError;
    std::optional<Error> execError;
    // The paths tried in order, as execvp does, with this process's
    // environment (see programCandidates).
    std::span<const std::string> candidates;
    char* const* argv = nullptr; // NULL-terminated (see argumentPointers)
    FailureReport report;
};

// Forks and runs `plan` in the child; the child's pid (see SessionSetup for
// Detached).
[[nodiscard]] Result<pid_t> spawnChild(const ChildPlan& plan);

// In the parent, from the read end of the pipe whose write end was
// FailureReport::recordFd (and closed here): nullopt when the child's exec
// succeeded (end of file), else its failure.
[[nodiscard]] Result<std::optional<SpawnFailure>> readSpawnFailure(int fd);

// Kills the process group led by `leader`, and `leader` itself should it
// have left the group, then waits for it.
void killGroupAndReap(pid_t leader);

// The paths to try for `program`: itself when it holds a "/", else each
// directory of the search path (the default one when PATH is absent).
[[nodiscard]] std::vector<std::string>
programCandidates(std::string_view program, std::optional<std::string_view> pathVariable);

// The NULL-terminated vector exec takes, pointing into `texts`, which must
// outlive it unchanged.
[[nodiscard]] std::vector<char*> argumentPointers(std::vector<std::string>& texts);

} // namespace tovel
