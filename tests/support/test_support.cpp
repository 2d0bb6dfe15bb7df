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
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tovel::test {

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

RunResult runBinary(const std::vector<std::string>& args, const RunOptions& options) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
        return {};
    std::vector<std::string> storage;
    storage.push_back(binaryPath());
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : storage)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        for (const auto& [name, value] : options.env) {
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
        }
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (!options.input.empty()) {
        ssize_t ignored = ::write(in[1], options.input.data(), options.input.size());
        (void)ignored;
    }
    ::close(in[1]);

    RunResult result;
    auto deadline = std::chrono::steady_clock::now() + options.deadline;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            ::kill(-pid, SIGKILL);
            ::kill(pid, SIGKILL);
            break;
        }
        if (::poll(fds, 2, static_cast<int>(left)) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buffer[65536];
            ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
                continue;
            }
            (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
        }
    }
    for (auto& entry : fds) {
        if (entry.fd >= 0)
            ::close(entry.fd);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

PtyProcess::PtyProcess(const std::vector<std::string>& args, const RunOptions& options,
                       unsigned short cols, unsigned short rows) {
    std::vector<std::string> storage;
    storage.push_back(binaryPath());
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : storage)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    winsize size{};
    size.ws_col = cols;
    size.ws_row = rows;
    pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ == 0) {
        for (const auto& [name, value] : options.env) {
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    if (master_ >= 0)
        ::fcntl(master_, F_SETFD, FD_CLOEXEC);
}

PtyProcess::~PtyProcess() {
    if (pid_ > 0 && status_ < 0) {
        ::kill(-pid_, SIGKILL);
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
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
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        end - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0)
            return false;
        if (!readSome(static_cast<int>(std::min<long long>(left, 50))) &&
            ::waitpid(pid_, nullptr, WNOHANG | WNOWAIT) == pid_ && !readSome(0))
            return output_.find(needle) != std::string::npos;
    }
    return true;
}

void PtyProcess::write(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (n <= 0 && errno != EINTR)
            return;
        if (n > 0)
            done += static_cast<std::size_t>(n);
    }
}

void PtyProcess::resize(unsigned short cols, unsigned short rows) {
    winsize size{};
    size.ws_col = cols;
    size.ws_row = rows;
    ::ioctl(master_, TIOCSWINSZ, &size);
}

int PtyProcess::waitExit(std::chrono::milliseconds deadline) {
    if (status_ >= 0)
        return status_;
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            while (readSome(0)) {
            }
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
