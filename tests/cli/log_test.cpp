// Log lines, colour rules and the standard-error lock, each run in a forked
// child so that the colour decision is made afresh with its own environment.
#include "cli/log.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <map>
#include <optional>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace tovel {
namespace {

using Env = std::map<std::string, std::optional<std::string>>;

// Runs `body` in a child with standard error on a pipe; returns what it wrote.
std::string captureStderr(const Env& env, const std::function<void()>& body) {
    int fds[2];
    if (::pipe(fds) != 0)
        return "pipe failed";
    pid_t pid = ::fork();
    if (pid == 0) {
        for (const auto& [name, value] : env) {
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
        }
        ::dup2(fds[1], STDERR_FILENO);
        ::close(fds[0]);
        ::close(fds[1]);
        body();
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string out;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n > 0) {
            out.append(buffer, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;
    }
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return out;
}

const Env kPlain{{"NO_COLOR", std::nullopt}, {"CLICOLOR_FORCE", std::nullopt}};

TEST(Log, PlainLinesCarryNoEscapes) {
    std::string out = captureStderr(kPlain, [] {
        logError(Error::KeeperStartupTimeout);
        logWarning(LogScope::Keeper, "failed to signal shell group: ", Error::ProcessNotFound);
        logInfo(LogScope::Serve, "serving ", "/srv", " on 127.0.0.1:", 8080);
        logError(LogScope::Pty, "error setting controlling terminal errno=", ErrnoName{EPERM});
        logInfo("client dropped fd=", 7, " clients=", 0u, " revents=0x", Hex{0x11});
    });
    EXPECT_EQ(out, "error: KeeperStartupTimeout\n"
                   "warning(keeper): failed to signal shell group: ProcessNotFound\n"
                   "info(ptyd_serve): serving /srv on 127.0.0.1:8080\n"
                   "error(pty): error setting controlling terminal errno=PERM\n"
                   "info: client dropped fd=7 clients=0 revents=0x11\n");
}

TEST(Log, ForcedColourOnAPipe) {
    std::string out = captureStderr({{"NO_COLOR", std::nullopt}, {"CLICOLOR_FORCE", "1"}}, [] {
        logError("x");
        logWarning(LogScope::Keeper, "y");
    });
    EXPECT_EQ(out, "\x1b[31m\x1b[1merror\x1b[0m\x1b[2m\x1b[1m: \x1b[0mx\n"
                   "\x1b[33m\x1b[1mwarning\x1b[0m\x1b[2m\x1b[1m(keeper): \x1b[0my\n");
}

TEST(Log, EmptyNoColorWinsOverForce) {
    std::string out =
        captureStderr({{"NO_COLOR", ""}, {"CLICOLOR_FORCE", "1"}}, [] { logInfo("z"); });
    EXPECT_EQ(out, "info: z\n");
}

TEST(Log, LongMessageIsWrittenWhole) {
    std::string message(1000, 'm');
    std::string out = captureStderr(kPlain, [&] { logError(message); });
    EXPECT_EQ(out, "error: " + message + "\n");
}

TEST(Log, ReentrantLockAndThreadsKeepLinesWhole) {
    constexpr int kLines = 300;
    std::string out = captureStderr(kPlain, [] {
        auto writer = [](void* tag) -> void* {
            std::string line(150, *static_cast<const char*>(tag));
            for (int i = 0; i < kLines; ++i) {
                StderrLock outer;
                printStderr(line.substr(0, 75));
                printStderr(line.substr(75), "\n");
            }
            return nullptr;
        };
        static const char a = 'a', b = 'b';
        pthread_t first, second;
        pthread_create(&first, nullptr, writer, const_cast<char*>(&a));
        pthread_create(&second, nullptr, writer, const_cast<char*>(&b));
        pthread_join(first, nullptr);
        pthread_join(second, nullptr);
    });
    int lines = 0;
    std::size_t start = 0;
    while (start < out.size()) {
        std::size_t end = out.find('\n', start);
        ASSERT_NE(end, std::string::npos);
        std::string line = out.substr(start, end - start);
        ASSERT_EQ(line.size(), 150u);
        EXPECT_EQ(line, std::string(150, line[0]));
        ++lines;
        start = end + 1;
    }
    EXPECT_EQ(lines, 2 * kLines);
}

} // namespace
} // namespace tovel
