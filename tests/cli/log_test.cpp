// Log lines, colour rules and the standard-error lock, each run in a forked
// child so that the colour decision is made afresh with its own environment.
// (NO_COLOR winning over CLICOLOR_FORCE is seen in the front-end table.)
#include "cli/log.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tovel {
namespace {

// Runs `body` in a child with standard error on a file; returns what it wrote.
std::string captureStderr(const test::Env& env, const std::function<void()>& body) {
    test::TempDir dir;
    std::string path = dir.path() + "/err";
    if (::fork() == 0) {
        test::applyEnv(env);
        ::dup2(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        body();
        ::_exit(0);
    }
    ::wait(nullptr);
    return test::readFile(path);
}

const test::Env kPlain{{"NO_COLOR", std::nullopt}, {"CLICOLOR_FORCE", std::nullopt}};
TEST(Log, PlainLinesOnAPipe) {
    std::string longMessage(1000, 'm'); // longer than the line buffer
    std::string out = captureStderr(kPlain, [&] {
        logError(Error::KeeperStartupTimeout);
        logWarning(LogScope::Keeper, "failed to signal shell group: ", Error::ProcessNotFound);
        logInfo(LogScope::Serve, "serving ", "/srv", " on 127.0.0.1:", 8080);
        logError(LogScope::Pty, "error setting controlling terminal errno=", ErrnoName{EPERM});
        logInfo("client dropped fd=", 7, " clients=", 0u, " revents=0x", Hex{0x11});
        logError(longMessage);
    });
    EXPECT_EQ(out, "error: KeeperStartupTimeout\n"
                   "warning(keeper): failed to signal shell group: ProcessNotFound\n"
                   "info(ptyd_serve): serving /srv on 127.0.0.1:8080\n"
                   "error(pty): error setting controlling terminal errno=PERM\n"
                   "info: client dropped fd=7 clients=0 revents=0x11\n"
                   "error: " +
                       longMessage + "\n");
}

TEST(Log, ForcedColourOnAPipe) {
    std::string out = captureStderr({{"NO_COLOR", std::nullopt}, {"CLICOLOR_FORCE", "1"}}, [] {
        logError("x");
        logWarning(LogScope::Keeper, "y");
    });
    EXPECT_EQ(out, "\x1b[31m\x1b[1merror\x1b[0m\x1b[2m\x1b[1m: \x1b[0mx\n"
                   "\x1b[33m\x1b[1mwarning\x1b[0m\x1b[2m\x1b[1m(keeper): \x1b[0my\n");
}

TEST(Log, ReentrantLockAndThreadsKeepLinesWhole) {
    constexpr int kLines = 300;
    std::string out = captureStderr(kPlain, [] {
        auto writer = [](char tag) {
            for (int i = 0; i < kLines; ++i) {
                StderrLock outer;
                printStderr(std::string(75, tag));
                printStderr(std::string(75, tag), "\n");
            }
        };
        std::thread first(writer, 'a'), second(writer, 'b');
        first.join();
        second.join();
    });
    ASSERT_EQ(out.size(), 2u * kLines * 151);
    for (std::size_t at = 0; at < out.size(); at += 151)
        ASSERT_EQ(out.substr(at, 151), std::string(150, out[at]) + "\n") << at;
}

} // namespace
} // namespace tovel
