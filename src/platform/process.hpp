// Process wrappers: fork, exec, wait, signals to processes and groups,
// sessions. Everything here that a forked child may call (execve, setsid,
// setpgid, exitImmediately) is async-signal-safe: no allocation, no locks.
#pragma once

#include "platform/result.hpp"

#include <sys/types.h>

namespace tovel::sys {

// 0 in the child, the child's pid in the parent.
[[nodiscard]] Result<pid_t> fork();

// Replaces the process image; returns only on failure. `argv` and `envp` are
// NULL-terminated vectors built before forking.
[[nodiscard]] Result<> execve(const char* path, char* const argv[], char* const envp[]);
// Like execve, but searches PATH for a name without "/" (execvpe).
[[nodiscard]] Result<> execvpe(const char* file, char* const argv[], char* const envp[]);

[[noreturn]] void exitImmediately(int status);

[[nodiscard]] Result<pid_t> setsid();
[[nodiscard]] Result<> setpgid(pid_t pid, pid_t group);
[[nodiscard]] pid_t getpid();
// The real user id.
[[nodiscard]] uid_t getuid();

[[nodiscard]] Result<> kill(pid_t pid, int signal);
// Signals every process of the group `group` (kill with -group).
[[nodiscard]] Result<> killProcessGroup(pid_t group, int signal);

enum class WaitMode { Block, NoHang };

struct WaitOutcome {
    pid_t pid = 0;  // 0: nothing has changed yet (NoHang)
    int status = 0; // raw wait status
};

// waitpid, retrying EINTR.
[[nodiscard]] Result<WaitOutcome> waitpid(pid_t pid, WaitMode mode);

[[nodiscard]] Result<> chdir(const char* path);

} // namespace tovel::sys
