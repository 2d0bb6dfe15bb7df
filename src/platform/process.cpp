// Process wrappers.
#include "platform/process.hpp"

#include "platform/retry.hpp"

#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace tovel::sys {

Result<pid_t> fork() {
    pid_t pid = ::fork();
    if (pid < 0)
        return fail(errorFromErrno(errno));
    return pid;
}

Result<> execve(const char* path, char* const argv[], char* const envp[]) {
    ::execve(path, argv, envp);
    return fail(errorFromErrno(errno));
}

Result<> execvpe(const char* file, char* const argv[], char* const envp[]) {
    ::execvpe(file, argv, envp);
    return fail(errorFromErrno(errno));
}

void exitImmediately(int status) {
    ::_exit(status);
}

Result<pid_t> setsid() {
    pid_t id = ::setsid();
    if (id < 0)
        return fail(errorFromErrno(errno));
    return id;
}

Result<> setpgid(pid_t pid, pid_t group) {
    if (::setpgid(pid, group) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

pid_t getpid() {
    return ::getpid();
}

uid_t getuid() {
    return ::getuid();
}

Result<> kill(pid_t pid, int signal) {
    if (::kill(pid, signal) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<> killProcessGroup(pid_t group, int signal) {
    if (group <= 0)
        return fail(Error::InvalidArgument);
    return kill(-group, signal);
}

Result<WaitOutcome> waitpid(pid_t pid, WaitMode mode) {
    int options = mode == WaitMode::NoHang ? WNOHANG : 0;
    int status = 0;
    pid_t changed = retryOnInterrupt([&] { return ::waitpid(pid, &status, options); });
    if (changed < 0)
        return fail(errorFromErrno(errno));
    return WaitOutcome{changed, status};
}

Result<> chdir(const char* path) {
    if (::chdir(path) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace tovel::sys
