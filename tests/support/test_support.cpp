// Test helpers: temp directories and running the binary.
#include "support/test_support.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tovel::test {

namespace {

// In a forked child: applies the environment changes and runs the binary
// with descriptors 0, 1 and 2 only, whatever the test process inherited.
[[noreturn]] void execBinary(const std::vector<std::string>& args, const Env& env) {
    ::close_range(3, ~0U, 0);
    applyEnv(env);
    std::vector<const char*> argv{binaryPath()};
    for (const auto& arg : args)
        argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    ::execv(argv[0], const_cast<char* const*>(argv.data()));
    ::_exit(127);
}

// True once `pid` has ended; it stays to be reaped.
bool ended(int pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

int reap(int pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int millisecondsUntil(std::chrono::steady_clock::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    end - std::chrono::steady_clock::now())
                    .count();
    return left > 0 ? static_cast<int>(left) : 0;
}

TempDir::TempDir() {
    char pattern[] = "/tmp/tvt.XXXXXX";
    char* made = ::mkdtemp(pattern);
    path_ = made != nullptr ? made : "/tmp/tvt.failed";
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempDir::writeFile(const std::string& relative, const std::string& content) const {
    std::filesystem::path full = std::filesystem::path(path_) / relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream(full, std::ios::binary) << content;
}

void applyEnv(const Env& env) {
    for (const auto& [name, value] : env) {
        if (value)
            ::setenv(name.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name.c_str());
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

RunOptions runtimeOptions(const std::string& dir) {
    RunOptions run;
    run.env = {{"TOVEL_PTYD_DIR", dir}, {"NO_COLOR", "1"}, {"CLICOLOR_FORCE", std::nullopt},
               {"SHELL", "/bin/sh"},    {"HOME", dir},     {"ENV", std::nullopt}};
    return run;
}

RunResult runBinary(const std::vector<std::string>& args, const RunOptions& options) {
    // The streams go through files: the result is complete once the child
    // has ended, whatever its own children still hold.
    TempDir io;
    io.writeFile("in", options.input);
    std::string paths[3] = {io.path() + "/in", io.path() + "/out", io.path() + "/err"};
    pid_t pid = ::fork();
    if (pid < 0)
        return {};
    if (pid == 0) {
        ::setpgid(0, 0);
        for (int fd = 0; fd < 3; ++fd) {
            int opened = ::open(paths[fd].c_str(),
                                (fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT) | O_CLOEXEC, 0600);
            ::dup2(opened, fd);
        }
        execBinary(args, options.env);
    }
    pollfd exit{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    auto end = std::chrono::steady_clock::now() + options.deadline;
    while (::poll(&exit, 1, millisecondsUntil(end)) < 0 && errno == EINTR) {
    }
    ::close(exit.fd);
    if (!ended(pid)) {
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
    }
    return {reap(pid), readFile(paths[1]), readFile(paths[2])};
}

PtyProcess::PtyProcess(const std::vector<std::string>& args, const RunOptions& options,
                       unsigned short cols, unsigned short rows) {
    winsize size{rows, cols, 0, 0};
    pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ == 0)
        execBinary(args, options.env);
    if (master_ >= 0)
        ::fcntl(master_, F_SETFD, FD_CLOEXEC);
}

PtyProcess::~PtyProcess() {
    if (pid_ > 0 && status_ < 0) {
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        reap(pid_);
    }
    if (master_ >= 0)
        ::close(master_);
}

bool PtyProcess::readSome(int timeoutMs) {
    pollfd entry{master_, POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) <= 0)
        return false;
    char buffer[65536];
    ssize_t n = ::read(master_, buffer, sizeof buffer);
    if (n <= 0)
        return false;
    output_.append(buffer, static_cast<std::size_t>(n));
    return true;
}

bool PtyProcess::readUntil(const std::string& needle, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (output_.find(needle) == std::string::npos) {
        int left = millisecondsUntil(end);
        if (left <= 0 || (!readSome(std::min(left, 50)) && ended(pid_) && !readSome(0)))
            return output_.find(needle) != std::string::npos;
    }
    return true;
}

void PtyProcess::write(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno != EINTR)
            return;
        done += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
}

void PtyProcess::resize(unsigned short cols, unsigned short rows) {
    winsize size{rows, cols, 0, 0};
    ::ioctl(master_, TIOCSWINSZ, &size);
}

int PtyProcess::waitExit(std::chrono::milliseconds deadline) {
    if (status_ >= 0)
        return status_;
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        if (ended(pid_)) {
            while (readSome(0)) {
            }
            status_ = reap(pid_);
            return status_;
        }
        readSome(10);
    }
    return -1;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

} // namespace tovel::test
