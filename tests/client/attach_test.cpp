// The attach client against a fake keeper, on a real terminal: the replay
// bracket, exit statuses, raw mode restored on every ending, input and
// size changes forwarded, and the reconnect series.
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <termios.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

const std::string kId = "00112233445566778899aabbccddeeff";

class AttachClient : public ::testing::Test {
  protected:
    // Starts the client, accepts it and checks its greeting.
    WireConnection start(unsigned short cols = 80, unsigned short rows = 24) {
        attach_ = std::make_unique<PtyProcess>(std::vector<std::string>{"attach", kId},
                                               runtimeOptions(dir_.path()), cols, rows);
        WireConnection client = keeper_.accept();
        auto hello = client.readFrame();
        EXPECT_TRUE(hello && hello->type == frame::Hello && hello->payload == "\1");
        auto attach = client.readFrame();
        EXPECT_TRUE(attach && attach->type == frame::Attach &&
                    attach->payload == winsizePayload(cols, rows));
        return client;
    }
    // True once the client has put its terminal in raw mode.
    bool waitRaw() {
        return waitUntil([&] {
            termios mode{};
            return ::tcgetattr(attach_->master(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
        });
    }

    TempDir dir_;
    FakeKeeper keeper_{dir_.path() + "/" + kId + ".sock"};
    std::unique_ptr<PtyProcess> attach_;
};

struct Step {
    std::string send;    // from the keeper
    std::string waitFor; // then on the terminal
    std::string type;    // then typed, and expected as Input
};

struct BracketCase {
    const char* name;
    std::vector<Step> steps;
    std::string expected; // after Exit; <S> and <E> stand for the markers
};

class ReplayBracket : public AttachClient, public ::testing::WithParamInterface<BracketCase> {};

TEST_P(ReplayBracket, MarksExactlyTheReplayedOutput) {
    WireConnection client = start();
    ASSERT_TRUE(waitRaw());
    for (const Step& step : GetParam().steps) {
        client.send(step.send);
        ASSERT_TRUE(attach_->readUntil(step.waitFor)) << attach_->output();
        if (step.type.empty())
            continue;
        attach_->write(step.type);
        auto input = client.readFrame();
        EXPECT_TRUE(input && input->type == frame::Input && input->payload == step.type);
    }
    client.sendFrame(frame::Exit, u32Payload(0));
    EXPECT_EQ(attach_->waitExit(), 0);
    std::string nonce = replayNonce(attach_->output());
    std::string expected = GetParam().expected;
    for (std::size_t at; (at = expected.find("<S>")) != std::string::npos;)
        expected.replace(at, 3, kReplayStartPrefix + nonce + "\x1b\\");
    for (std::size_t at; (at = expected.find("<E>")) != std::string::npos;)
        expected.replace(at, 3, kReplayEndPrefix + nonce + "\x1b\\");
    EXPECT_EQ(attach_->output(), expected);
}

std::string out(const std::string& text) {
    return frameBytes(frame::Output, text);
}
const std::string kStart = frameBytes(frame::ReplayStart), kEnd = frameBytes(frame::ReplayEnd);

INSTANTIATE_TEST_SUITE_P(
    Attach, ReplayBracket,
    ::testing::Values(
        BracketCase{"ReplayThenLive",
                    {{kStart + out("old") + kEnd + out("new"), "new", ""}},
                    "<S>old<E>new"},
        BracketCase{
            "EmptyReplayWritesNoMarkers", {{kStart + kEnd + out("live"), "live", ""}}, "live"},
        // Output without ReplayStart is bracketed until a quiet period.
        BracketCase{"OutputFirstClosesWhenQuiet",
                    {{out("early"), kReplayEndPrefix, ""}, {out("late"), "late", ""}},
                    "<S>early<E>late"},
        // A keystroke leaves a bracket after ReplayStart open; the ending closes it, once.
        BracketCase{
            "KeystrokeInsideReplay", {{kStart + out("scroll"), "scroll", "k"}}, "<S>scroll<E>"},
        // Typing before any output means no bracket will be opened.
        BracketCase{"KeystrokeFirst", {{"", "", "k"}, {out("x"), "x", ""}}, "x"}),
    [](const auto& info) { return info.param.name; });

struct EndingCase {
    const char* name;
    std::string fromKeeper;
    int status;
    std::string stderrText;
};

class TerminalRestored : public AttachClient, public ::testing::WithParamInterface<EndingCase> {};

// Whatever ends the attach, with whichever status, the terminal is back in
// its cooked mode.
TEST_P(TerminalRestored, AfterEveryEnding) {
    WireConnection client = start();
    ASSERT_TRUE(waitRaw());
    termios during{};
    ASSERT_EQ(::tcgetattr(attach_->master(), &during), 0);
    EXPECT_EQ(during.c_lflag & (ECHO | ISIG | IEXTEN), 0u);
    client.send(GetParam().fromKeeper);
    EXPECT_EQ(attach_->waitExit(), GetParam().status);
    termios after{};
    ASSERT_EQ(::tcgetattr(attach_->master(), &after), 0);
    // A fresh terminal's cooked settings, every one raw mode had cleared.
    EXPECT_EQ(after.c_lflag & (ICANON | ECHO | ISIG | IEXTEN),
              tcflag_t(ICANON | ECHO | ISIG | IEXTEN));
    EXPECT_EQ(after.c_iflag & (ICRNL | IXON), tcflag_t(ICRNL | IXON));
    EXPECT_EQ(after.c_oflag & OPOST, tcflag_t(OPOST));
    EXPECT_NE(attach_->output().find(GetParam().stderrText), std::string::npos)
        << attach_->output();
}

INSTANTIATE_TEST_SUITE_P(
    Attach, TerminalRestored,
    ::testing::Values(
        EndingCase{"Exit", frameBytes(frame::Exit, u32Payload(3)), 3, ""},
        EndingCase{"Exit256IsOne", frameBytes(frame::Exit, u32Payload(256)), 1, ""},
        EndingCase{"ShortExitIsOne", frameBytes(frame::Exit, std::string(2, '\0')), 1, ""},
        EndingCase{"SignalledIsOne", frameBytes(frame::Exit, u32Payload(0xFFFFFF89)), 1, ""},
        EndingCase{"GarbageLength", std::string("\0\0\0\0\4", 5), 1, "error: InvalidFrame"},
        EndingCase{"EnormousLength", std::string("\x7f\0\0\0\4", 5), 1, "error: InvalidFrame"},
        EndingCase{"VersionMismatch", frameBytes(frame::VersionMismatch, "\2"), 3,
                   "tovel-ptyd: protocol mismatch (keeper v2, client v1); the daemon is a "
                   "different build. Restart it (kill the session) to pick up the new binary."}),
    [](const auto& info) { return info.param.name; });

TEST_F(AttachClient, WindowChangesReachTheKeeperAsResize) {
    WireConnection client = start(90, 30);
    // Output on the terminal proves the client's loop, and so its signal
    // handlers, are running.
    client.send(kStart + kEnd + out("up"));
    ASSERT_TRUE(attach_->readUntil("up"));
    attach_->resize(120, 40);
    auto resize = client.readFrame();
    ASSERT_TRUE(resize);
    EXPECT_EQ(resize->type, frame::Resize);
    EXPECT_EQ(resize->payload, winsizePayload(120, 40));
    ::kill(attach_->pid(), SIGTERM);
    EXPECT_EQ(attach_->waitExit(), 130);
}

// The whole reconnect series: 20 attempts after the first drop, waiting at
// least 100, 200, 400, 800, 1600 ms and then 2000 ms, then status 130.
TEST_F(AttachClient, ReconnectSeriesBacksOffThenGivesUp) {
    // The first connection completes its greeting (a failure there ends the
    // attach at once); every later one is dropped straight away.
    WireConnection first = start();
    std::vector<std::chrono::steady_clock::time_point> accepted{std::chrono::steady_clock::now()};
    first.close();
    while (accepted.size() < 21) {
        WireConnection next = keeper_.accept(10s);
        if (!next.connected())
            break;
        accepted.push_back(std::chrono::steady_clock::now());
    }
    ASSERT_EQ(accepted.size(), 21u) << attach_->output();
    for (std::size_t i = 0; i + 1 < accepted.size(); ++i) {
        auto gap = accepted[i + 1] - accepted[i];
        EXPECT_GE(gap, std::chrono::milliseconds(std::min(100 << std::min<int>(i, 5), 2000))) << i;
    }
    keeper_.stopListening();
    EXPECT_EQ(attach_->waitExit(10s), 130);
}

} // namespace
} // namespace tovel::test
