// The user's road end to end with the real binary on real terminals: connect,
// lose the terminal, list, attach again and see the scroll-back replayed.
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <termios.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

const std::string kStartPrefix = "\x1b]7727;action=pty-replay-start;value=";
const std::string kEndPrefix = "\x18\x1b]7727;action=pty-replay-end;value=";

class Walkthrough : public ::testing::Test {
  protected:
    void TearDown() override {
        // The keeper outlives the terminals; stop it by its recorded pid.
        std::ifstream meta(dir_.path() + "/" + id_ + ".meta");
        std::string line;
        while (std::getline(meta, line)) {
            if (line.rfind("keeper_pid=", 0) == 0)
                ::kill(std::stoi(line.substr(11)), SIGKILL);
            if (line.rfind("shell_pid=", 0) == 0)
                ::kill(-std::stoi(line.substr(10)), SIGKILL);
        }
    }
    RunOptions options() const {
        RunOptions run;
        run.env["TOVEL_PTYD_DIR"] = dir_.path();
        run.env["SHELL"] = "/bin/sh";
        run.env["NO_COLOR"] = "1";
        run.env["ENV"] = std::nullopt;
        // The login shell reads the profile under HOME: keep it empty and fast.
        run.env["HOME"] = dir_.path();
        return run;
    }
    TempDir dir_;
    std::string id_;
};

TEST_F(Walkthrough, ConnectDropReattachReplays) {
    auto first =
        std::make_unique<PtyProcess>(std::vector<std::string>{"connect"}, options(), 100, 30);
    const std::string bannerStart = "\x1b[2m[tovel] persistent shell ";
    ASSERT_TRUE(first->readUntil("`\x1b[0m\r"));
    std::string banner = first->output();
    ASSERT_EQ(banner.rfind(bannerStart, 0), 0u) << banner;
    std::size_t idAt = banner.find("shellsess attach ") + 17;
    id_ = banner.substr(idAt, 32);
    EXPECT_EQ(banner.substr(bannerStart.size(), 8), id_.substr(0, 8));
    EXPECT_NE(banner.find(" \u2014 ssh disconnect won't kill it; reattach with `tovel-shellsess "
                          "attach " +
                          id_ + "`\x1b[0m\r"),
              std::string::npos);

    // Typing before raw mode would be flushed with the cooked line: wait
    // until the client has switched the terminal.
    ASSERT_TRUE(waitUntil(
        [&] {
            termios mode{};
            return ::tcgetattr(first->master(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
        },
        20s));
    first->write("echo marker-$((6*7))\r");
    ASSERT_TRUE(first->readUntil("marker-42", 20s));
    // Closing the terminal: the client gets SIGHUP and ends with 130.
    ::kill(first->pid(), SIGHUP);
    EXPECT_EQ(first->waitExit(), 130);
    first.reset();

    RunResult list = runBinary({"list"}, options());
    EXPECT_EQ(list.out.rfind(id_ + " keeper_pid=", 0), 0u) << list.out;

    PtyProcess second({"attach", id_}, options());
    ASSERT_TRUE(second.readUntil(kEndPrefix, 20s));
    std::string out = second.output();
    std::size_t start = out.find(kStartPrefix);
    ASSERT_NE(start, std::string::npos);
    std::string nonce = out.substr(start + kStartPrefix.size(), 32);
    std::size_t end = out.find(kEndPrefix + nonce + "\x1b\\");
    ASSERT_NE(end, std::string::npos);
    EXPECT_NE(out.substr(start, end - start).find("marker-42"), std::string::npos);

    second.write("exit 5\r");
    EXPECT_EQ(second.waitExit(), 5);
    RunResult after = runBinary({"list"}, options());
    EXPECT_EQ(after.out, "");
}

TEST_F(Walkthrough, KillEndsTheSession) {
    RunResult created = runBinary({"new", "--cmd", "sleep 60"}, options());
    ASSERT_EQ(created.status, 0);
    id_ = created.out.substr(0, 32);
    RunResult killed = runBinary({"kill", id_, "--force"}, options());
    EXPECT_EQ(killed.status, 0);
    EXPECT_EQ(killed.err, "");
    RunResult list = runBinary({"list"}, options());
    EXPECT_EQ(list.out, "");
}

} // namespace
} // namespace tovel::test
