// The attach client against a fake keeper, on a real terminal: the replay
// bracket, exit statuses, raw mode restored on every ending, input and
// size changes forwarded, and the reconnect series.
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <termios.h>
#include <thread>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kAttach = 1, kInput = 2, kResize = 3, kOutput = 4, kExit = 5, kHello = 8,
                       kVersionMismatch = 9, kReplayStart = 10, kReplayEnd = 11;
const std::string kId = "00112233445566778899aabbccddeeff";
const std::string kStartPrefix = "\x1b]7727;action=pty-replay-start;value=";
const std::string kEndPrefix = "\x18\x1b]7727;action=pty-replay-end;value=";

class AttachClient : public ::testing::Test {
  protected:
    RunOptions options() const {
        RunOptions run;
        run.env["TOVEL_PTYD_DIR"] = dir_.path();
        run.env["NO_COLOR"] = "1";
        return run;
    }
    std::string socketPath() const { return dir_.path() + "/" + kId + ".sock"; }

    // Accepts the client and checks its greeting.
    WireConnection acceptGreeted(FakeKeeper& keeper) {
        WireConnection client = keeper.accept();
        auto hello = client.readFrame();
        EXPECT_TRUE(hello && hello->type == kHello && hello->payload == std::string(1, '\1'));
        auto attach = client.readFrame();
        EXPECT_TRUE(attach && attach->type == kAttach);
        return client;
    }

    TempDir dir_;
};

std::string startMarker(const std::string& nonce) {
    return kStartPrefix + nonce + "\x1b\\";
}
std::string endMarker(const std::string& nonce) {
    return kEndPrefix + nonce + "\x1b\\";
}

// The nonce of the first start marker in `output`, or empty.
std::string nonceIn(const std::string& output) {
    std::size_t at = output.find(kStartPrefix);
    return at == std::string::npos ? std::string() : output.substr(at + kStartPrefix.size(), 32);
}

TEST_F(AttachClient, ReplayIsBracketedWithOneNonceThenLiveOutput) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    WireConnection client = acceptGreeted(keeper);
    client.send(frameBytes(kReplayStart) + frameBytes(kOutput, "old") + frameBytes(kReplayEnd) +
                frameBytes(kOutput, "new") + frameBytes(kExit, u32Payload(7)));
    EXPECT_EQ(attach.waitExit(), 7);
    std::string nonce = nonceIn(attach.output());
    ASSERT_EQ(nonce.size(), 32u);
    EXPECT_EQ(startMarker(nonce).size(), 71u);
    EXPECT_EQ(endMarker(nonce).size(), 70u);
    EXPECT_EQ(attach.output(), startMarker(nonce) + "old" + endMarker(nonce) + "new");
}

TEST_F(AttachClient, EmptyReplayWritesNoMarkers) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    WireConnection client = acceptGreeted(keeper);
    client.send(frameBytes(kReplayStart) + frameBytes(kReplayEnd) + frameBytes(kOutput, "live") +
                frameBytes(kExit, u32Payload(0)));
    EXPECT_EQ(attach.waitExit(), 0);
    EXPECT_EQ(attach.output(), "live");
}

TEST_F(AttachClient, OutputWithoutReplayStartClosesAfterAQuietPeriod) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    WireConnection client = acceptGreeted(keeper);
    client.sendFrame(kOutput, "early");
    ASSERT_TRUE(attach.readUntil(kEndPrefix));
    client.send(frameBytes(kOutput, "late") + frameBytes(kExit, u32Payload(0)));
    EXPECT_EQ(attach.waitExit(), 0);
    std::string nonce = nonceIn(attach.output());
    EXPECT_EQ(attach.output(), startMarker(nonce) + "early" + endMarker(nonce) + "late");
}

TEST_F(AttachClient, KeystrokeClosesAnOpenBracketAndIsForwarded) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    WireConnection client = acceptGreeted(keeper);
    client.send(frameBytes(kReplayStart) + frameBytes(kOutput, "scroll"));
    ASSERT_TRUE(attach.readUntil("scroll"));
    attach.write("k");
    auto input = client.readFrame();
    ASSERT_TRUE(input);
    EXPECT_EQ(input->type, kInput);
    EXPECT_EQ(input->payload, "k");
    client.sendFrame(kExit, u32Payload(0));
    EXPECT_EQ(attach.waitExit(), 0);
    // Still open after ReplayStart: closed by the ending path, once.
    std::string nonce = nonceIn(attach.output());
    EXPECT_EQ(attach.output(), startMarker(nonce) + "scroll" + endMarker(nonce));
}

struct ExitCase {
    const char* name;
    std::string payload;
    int status;
};

class ExitPayload : public AttachClient, public ::testing::WithParamInterface<ExitCase> {};

TEST_P(ExitPayload, MapsToTheProcessStatus) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    WireConnection client = acceptGreeted(keeper);
    client.sendFrame(kExit, GetParam().payload);
    EXPECT_EQ(attach.waitExit(), GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(Attach, ExitPayload,
                         ::testing::Values(ExitCase{"Seven", u32Payload(7), 7},
                                           ExitCase{"TwoFiftySixIsOne", u32Payload(256), 1},
                                           ExitCase{"TwoBytesIsOne", std::string(2, '\0'), 1},
                                           ExitCase{"SignalledIsOne", u32Payload(0xFFFFFF89), 1}),
                         [](const auto& info) { return info.param.name; });

struct EndingCase {
    const char* name;
    std::string fromKeeper;
    int status;
    std::string stderrText;
};

class TerminalRestored : public AttachClient, public ::testing::WithParamInterface<EndingCase> {};

// Whatever ends the attach, the terminal is back in its cooked mode.
TEST_P(TerminalRestored, AfterEveryEnding) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    WireConnection client = acceptGreeted(keeper);
    termios during{};
    ASSERT_TRUE(waitUntil([&] {
        ::tcgetattr(attach.master(), &during);
        return (during.c_lflag & ICANON) == 0;
    }));
    EXPECT_EQ(during.c_lflag & (ECHO | ISIG | IEXTEN), 0u);
    client.send(GetParam().fromKeeper);
    EXPECT_EQ(attach.waitExit(), GetParam().status);
    termios after{};
    ASSERT_EQ(::tcgetattr(attach.master(), &after), 0);
    // A fresh terminal's cooked settings, every one raw mode had cleared.
    EXPECT_EQ(after.c_lflag & (ICANON | ECHO | ISIG | IEXTEN),
              tcflag_t(ICANON | ECHO | ISIG | IEXTEN));
    EXPECT_EQ(after.c_iflag & (ICRNL | IXON), tcflag_t(ICRNL | IXON));
    EXPECT_EQ(after.c_oflag & OPOST, tcflag_t(OPOST));
    EXPECT_NE(attach.output().find(GetParam().stderrText), std::string::npos) << attach.output();
}

INSTANTIATE_TEST_SUITE_P(
    Attach, TerminalRestored,
    ::testing::Values(
        EndingCase{"Exit", frameBytes(kExit, u32Payload(3)), 3, ""},
        EndingCase{"GarbageLength", std::string("\0\0\0\0\4", 5), 1, "error: InvalidFrame"},
        EndingCase{"EnormousLength", std::string("\x7f\0\0\0\4", 5), 1, "error: InvalidFrame"},
        EndingCase{"VersionMismatch", frameBytes(kVersionMismatch, std::string(1, '\2')), 3,
                   "tovel-ptyd: protocol mismatch (keeper v2, client v1); the daemon is a "
                   "different build. Restart it (kill the session) to pick up the new binary.\n"}),
    [](const auto& info) { return info.param.name; });

TEST_F(AttachClient, WindowChangesReachTheKeeperAsResize) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options(), 90, 30);
    WireConnection client = keeper.accept();
    client.readFrame();
    auto greeting = client.readFrame();
    ASSERT_TRUE(greeting);
    EXPECT_EQ(greeting->payload, winsizePayload(90, 30));
    // Output on the terminal proves the client's loop, and so its signal
    // handlers, are running.
    client.send(frameBytes(kReplayStart) + frameBytes(kReplayEnd) + frameBytes(kOutput, "up"));
    ASSERT_TRUE(attach.readUntil("up"));
    attach.resize(120, 40);
    auto resize = client.readFrame();
    ASSERT_TRUE(resize);
    EXPECT_EQ(resize->type, kResize);
    EXPECT_EQ(resize->payload, winsizePayload(120, 40));
    ::kill(attach.pid(), SIGTERM);
    EXPECT_EQ(attach.waitExit(), 130);
}

TEST_F(AttachClient, MissingSessionFailsWithTheConnectError) {
    RunResult result = runBinary({"attach", kId}, options());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "error: FileNotFound\n");
}

// The whole reconnect series: 20 attempts after the first drop, waiting
// 100, 200, 400, 800, 1600 ms and then 2000 ms, then status 130.
TEST_F(AttachClient, ReconnectSeriesBacksOffThenGivesUp) {
    FakeKeeper keeper(socketPath());
    PtyProcess attach({"attach", kId}, options());
    std::vector<std::chrono::steady_clock::time_point> accepted;
    while (accepted.size() < 21) {
        WireConnection client = keeper.accept(5s);
        if (!client.connected())
            break;
        accepted.push_back(std::chrono::steady_clock::now());
    }
    ASSERT_EQ(accepted.size(), 21u) << attach.output();
    const int expected[] = {100, 200, 400, 800, 1600, 2000, 2000};
    for (int i = 0; i < 7; ++i) {
        auto gap =
            std::chrono::duration_cast<std::chrono::milliseconds>(accepted[i + 1] - accepted[i]);
        EXPECT_GE(gap.count(), expected[i]) << i;
        EXPECT_LT(gap.count(), expected[i] + 400) << i;
    }
    keeper.stopListening();
    EXPECT_EQ(attach.waitExit(10s), 130);
}

} // namespace
} // namespace tovel::test
