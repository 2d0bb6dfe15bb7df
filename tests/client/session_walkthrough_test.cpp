// The user's road end to end with the real binary on real terminals: connect,
// lose the terminal, list, attach again and see the scroll-back replayed.
#include "support/session_fixture.hpp"

#include <csignal>
#include <termios.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

class Walkthrough : public SessionFixture {};

TEST_F(Walkthrough, ConnectDropReattachReplays) {
    auto first =
        std::make_unique<PtyProcess>(std::vector<std::string>{"connect"}, options(), 100, 30);
    ASSERT_TRUE(first->readUntil("`\x1b[0m\r", 20s)) << first->output();
    std::string banner = first->output();
    std::string id = banner.substr(banner.find("shellsess attach ") + 17, 32);
    track(id);
    // Still cooked, the terminal sends the banner's \r\n as \r\r\n: compare up to its \r.
    EXPECT_EQ(banner.rfind("\x1b[2m[tovel] persistent shell " + id.substr(0, 8) +
                               " \u2014 ssh disconnect won't kill it; reattach with "
                               "`tovel-shellsess attach " +
                               id + "`\x1b[0m\r",
                           0),
              0u)
        << banner;

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
    EXPECT_EQ(list.out.rfind(id + " keeper_pid=", 0), 0u) << list.out;

    PtyProcess second({"attach", id}, options());
    ASSERT_TRUE(second.readUntil(kReplayEndPrefix, 20s));
    std::string out = second.output();
    std::string start = kReplayStartPrefix + replayNonce(out) + "\x1b\\";
    std::size_t from = out.find(start), to = out.find(kReplayEndPrefix + replayNonce(out));
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos) << out;
    EXPECT_NE(out.substr(from, to - from).find("marker-42"), std::string::npos);

    second.write("exit 5\r");
    EXPECT_EQ(second.waitExit(), 5);
    EXPECT_EQ(runBinary({"list"}, options()).out, "");
}

TEST_F(Walkthrough, KillEndsTheSession) {
    std::string id = startSession({"--cmd", "sleep 60"});
    ASSERT_FALSE(id.empty());
    RunResult killed = runBinary({"kill", id, "--force"}, options());
    EXPECT_EQ(killed.status, 0);
    EXPECT_EQ(killed.err, "");
    EXPECT_EQ(runBinary({"list"}, options()).out, "");
}

} // namespace
} // namespace tovel::test
