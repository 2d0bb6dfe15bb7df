// A real keeper, started by `new`, driven over its socket: replay, client
// isolation, shutdown and exit encodings, the lock, and what the shell sees.
#include "keeper_fixture.hpp"

#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kAttach = 1, kInput = 2, kResize = 3, kExit = 5, kPing = 6, kPong = 7,
                       kHello = 8, kVersionMismatch = 9, kReplayStart = 10, kReplayEnd = 11,
                       kShutdown = 12, kShutdownAck = 13;

class KeeperSession : public KeeperFixture {};

// The shell waits for a line before it prints, so that a client can attach first.
const std::string kWaitThenPrint = "read go; seq 1 250000; echo done-printing; read stop";

TEST_F(KeeperSession, ReplayIsExactlyTheLastMebibyteBracketed) {
    std::string id = startSession({"--cmd", kWaitThenPrint});
    ASSERT_FALSE(id.empty());
    WireConnection first = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(first, kReplayEnd).found);
    ASSERT_TRUE(first.sendFrame(kInput, "go\r"));
    std::string live;
    while (live.find("done-printing") == std::string::npos) {
        auto frame = first.readFrame(10s);
        ASSERT_TRUE(frame);
        if (frame->type == 4)
            live += frame->payload;
    }
    ASSERT_GT(live.size(), 1048576u);

    WireConnection second = attachTo(socketPath(id));
    auto start = second.readFrame();
    ASSERT_TRUE(start);
    EXPECT_EQ(start->type, kReplayStart);
    Collected replay = collectUntil(second, kReplayEnd);
    ASSERT_TRUE(replay.found);
    EXPECT_EQ(replay.output, live.substr(live.size() - 1048576));
}

TEST_F(KeeperSession, EmptyReplayIsStillBracketed) {
    std::string id = startSession({"--cmd", "read x"});
    ASSERT_FALSE(id.empty());
    WireConnection client = attachTo(socketPath(id));
    auto start = client.readFrame();
    auto end = client.readFrame();
    ASSERT_TRUE(start && end);
    EXPECT_EQ(start->type, kReplayStart);
    EXPECT_EQ(end->type, kReplayEnd);
}

struct MisbehaviourCase {
    const char* name;
    std::string bytes;
};

class ClientMisbehaviour : public KeeperFixture,
                           public ::testing::WithParamInterface<MisbehaviourCase> {};

// Each of these drops the offending client only: a well-behaved client
// attached before and after still gets live output.
TEST_P(ClientMisbehaviour, DropsOnlyThatClient) {
    std::string id = startSession({"--cmd", "while read line; do echo got-$line; done"});
    ASSERT_FALSE(id.empty());
    WireConnection good = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(good, kReplayEnd).found);

    WireConnection bad = WireConnection::connectTo(socketPath(id));
    ASSERT_TRUE(bad.connected());
    bad.send(GetParam().bytes);
    EXPECT_TRUE(bad.closedWithin(5s));

    ASSERT_TRUE(good.sendFrame(kInput, "ping\r"));
    std::string seen;
    EXPECT_TRUE(waitUntil([&] {
        auto frame = good.readFrame(100ms);
        if (frame && frame->type == 4)
            seen += frame->payload;
        return seen.find("got-ping") != std::string::npos;
    }));
}

std::string hello() {
    return frameBytes(kHello, std::string(1, '\1'));
}

INSTANTIATE_TEST_SUITE_P(
    Keeper, ClientMisbehaviour,
    ::testing::Values(
        MisbehaviourCase{"InputBeforeAttach", hello() + frameBytes(kInput, "x")},
        MisbehaviourCase{"ZeroColumns", hello() + frameBytes(kAttach, winsizePayload(0, 24))},
        MisbehaviourCase{"ShortResizePayload", hello() +
                                                   frameBytes(kAttach, winsizePayload(80, 24)) +
                                                   frameBytes(kResize, "abc")},
        MisbehaviourCase{"ZeroLengthField", hello() + std::string("\0\0\0\0\x02", 5)},
        MisbehaviourCase{"HugeLengthField", hello() + std::string("\x00\x40\x00\x01\x02", 5)},
        MisbehaviourCase{"OversizedInputFrame",
                         hello() + frameBytes(kAttach, winsizePayload(80, 24)) +
                             std::string("\x00\x00\x40\x02\x02", 5) + std::string(16385, 'x')},
        MisbehaviourCase{"BadShutdownFlag", hello() + frameBytes(kShutdown, std::string(1, '\2'))},
        MisbehaviourCase{"SilentPastHandshakeDeadline", ""}),
    [](const auto& info) { return info.param.name; });

TEST_F(KeeperSession, WrongVersionGetsVersionMismatchAndIsDisconnected) {
    std::string id = startSession({"--cmd", "read x"});
    ASSERT_FALSE(id.empty());
    WireConnection client = WireConnection::connectTo(socketPath(id));
    client.sendFrame(kHello, std::string(1, '\2'));
    auto frame = client.readFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->type, kVersionMismatch);
    EXPECT_EQ(frame->payload, std::string(1, '\1'));
    EXPECT_TRUE(client.closedWithin(2s));
    EXPECT_NE(readFile(filePath(id, ".log")).find("client proto v2 != keeper v1; rejecting"),
              std::string::npos);
}

TEST_F(KeeperSession, LargestInputFrameIsAccepted) {
    std::string id = startSession({"--cmd", "read x"});
    ASSERT_FALSE(id.empty());
    WireConnection client = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(client, kReplayEnd).found);
    ASSERT_TRUE(client.sendFrame(kInput, std::string(16384, 'a')));
    ASSERT_TRUE(client.sendFrame(kPing));
    auto frame = client.readFrame();
    while (frame && frame->type != kPong)
        frame = client.readFrame();
    EXPECT_TRUE(frame.has_value());
}

TEST_F(KeeperSession, ThirtyThirdClientIsTurnedAway) {
    std::string id = startSession({"--cmd", "read x"});
    ASSERT_FALSE(id.empty());
    std::vector<WireConnection> clients;
    for (int i = 0; i < 32; ++i) {
        clients.push_back(WireConnection::connectTo(socketPath(id)));
        clients.back().sendFrame(kHello, std::string(1, '\1'));
        clients.back().sendFrame(kPing);
        ASSERT_TRUE(clients.back().readFrame()) << i;
    }
    WireConnection extra = WireConnection::connectTo(socketPath(id));
    EXPECT_TRUE(extra.closedWithin(2s));
    EXPECT_NE(readFile(filePath(id, ".log")).find("rejecting client; at max_clients=32"),
              std::string::npos);
    clients.front().sendFrame(kPing);
    auto pong = clients.front().readFrame();
    ASSERT_TRUE(pong);
    EXPECT_EQ(pong->type, kPong);
}

TEST_F(KeeperSession, ClientThatStopsReadingIsCutOffWhileAnotherKeepsReceiving) {
    std::string id = startSession(
        {"--cmd", "read go; head -c 24000000 /dev/zero | tr '\\0' a; echo; echo all-sent; read x"});
    ASSERT_FALSE(id.empty());
    WireConnection stalled = attachTo(socketPath(id));
    WireConnection reader = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(reader, kReplayEnd).found);
    reader.sendFrame(kInput, "go\r");
    std::string tail;
    bool sawEnd = false;
    auto end = std::chrono::steady_clock::now() + 60s;
    while (!sawEnd && std::chrono::steady_clock::now() < end) {
        auto frame = reader.readFrame(5s);
        if (!frame)
            break;
        if (frame->type != 4)
            continue;
        tail += frame->payload;
        if (tail.size() > 128)
            tail.erase(0, tail.size() - 128);
        sawEnd = tail.find("all-sent") != std::string::npos;
    }
    EXPECT_TRUE(sawEnd);
    EXPECT_TRUE(stalled.closedWithin(5s));
    EXPECT_NE(readFile(filePath(id, ".log")).find("err=OutputBackpressure"), std::string::npos);
}

struct ShutdownCase {
    const char* name;
    char force;
    std::uint32_t exitPayload;
};

class ShutdownRequest : public KeeperFixture, public ::testing::WithParamInterface<ShutdownCase> {};

TEST_P(ShutdownRequest, AcknowledgesSignalsShellAndReportsItsDeath) {
    // The command script clears the TERM trap the way bash does; a plain
    // POSIX sh may keep an interactive shell's ignored SIGTERM.
    env_["SHELL"] = "/bin/bash";
    // Signalled only once the command runs: until the start-up script has
    // cleared its trap, an interactive login shell ignores SIGTERM.
    std::string id = startSession({"--cmd", "echo running; sleep 100"});
    ASSERT_FALSE(id.empty());
    WireConnection watcher = attachTo(socketPath(id));
    std::string seen;
    ASSERT_TRUE(waitUntil(
        [&] {
            auto frame = watcher.readFrame(100ms);
            if (frame && frame->type == 4)
                seen += frame->payload;
            return seen.find("running") != std::string::npos;
        },
        20s));
    WireConnection killer = WireConnection::connectTo(socketPath(id));
    killer.sendFrame(kHello, std::string(1, '\1'));
    killer.sendFrame(kShutdown, std::string(1, GetParam().force));
    auto ack = killer.readFrame();
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->type, kShutdownAck);
    auto exit = watcher.readFrame();
    while (exit && exit->type != kExit)
        exit = watcher.readFrame();
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->payload, u32Payload(GetParam().exitPayload));
    EXPECT_TRUE(waitGone(id));
    EXPECT_FALSE(::access(filePath(id, ".meta").c_str(), F_OK) == 0);
}

INSTANTIATE_TEST_SUITE_P(Keeper, ShutdownRequest,
                         ::testing::Values(ShutdownCase{"Graceful", 0, 0xFFFFFF8F},
                                           ShutdownCase{"Forced", 1, 0xFFFFFF89}),
                         [](const auto& info) { return info.param.name; });

TEST_F(KeeperSession, ExitFramesCarryTheShellsStatusEncoding) {
    std::string id = startSession({"--cmd", "read code; exit $code"});
    ASSERT_FALSE(id.empty());
    WireConnection client = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(client, kReplayEnd).found);
    client.sendFrame(kInput, "7\r");
    std::optional<WireFrame> frame;
    do
        frame = client.readFrame();
    while (frame && frame->type != kExit);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, u32Payload(7));

    std::string killed = startSession({"--cmd", "read x"});
    ASSERT_FALSE(killed.empty());
    WireConnection watcher = attachTo(socketPath(killed));
    ASSERT_TRUE(collectUntil(watcher, kReplayEnd).found);
    auto shell = metadataNumber(killed, "shell_pid");
    ASSERT_TRUE(shell);
    // The shell replaced itself with `sh -c`, which runs `read` itself.
    ::kill(static_cast<int>(*shell), SIGKILL);
    do
        frame = watcher.readFrame();
    while (frame && frame->type != kExit);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, u32Payload(0xFFFFFF89));
}

TEST_F(KeeperSession, SecondKeeperForTheSameIdExitsQuietly) {
    std::string id = startSession({"--cmd", "read x"});
    ASSERT_FALSE(id.empty());
    std::string logBefore = readFile(filePath(id, ".log"));
    RunResult second = runBinary(
        {"--keeper-exec", id, "80", "24", "", "", "1", "", "", "", "", "", ""}, options());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "");
    EXPECT_EQ(readFile(filePath(id, ".log")), logBefore);
    WireConnection client = attachTo(socketPath(id));
    EXPECT_TRUE(collectUntil(client, kReplayEnd).found);
}

TEST_F(KeeperSession, KeeperIsNotTheCallersChildAndRecordsItsMetadata) {
    std::string id = startSession({"--cmd", "read x", "--cwd", "/tmp", "--cols", "100"});
    ASSERT_FALSE(id.empty());
    std::string meta = readFile(filePath(id, ".meta"));
    EXPECT_NE(meta.find("cols=100\nrows=24\n"), std::string::npos);
    EXPECT_NE(meta.find("cwd_hex=2f746d70\n"), std::string::npos);
    EXPECT_EQ(std::count(meta.begin(), meta.end(), '\n'), 7);
    auto keeper = metadataNumber(id, "keeper_pid");
    ASSERT_TRUE(keeper);
    std::string stat = readFile("/proc/" + std::to_string(*keeper) + "/stat");
    int parent = std::stoi(stat.substr(stat.rfind(')') + 4));
    EXPECT_NE(parent, ::getpid());

    WireConnection client = attachTo(socketPath(id), 132, 40);
    ASSERT_TRUE(collectUntil(client, kReplayEnd).found);
    EXPECT_TRUE(waitUntil([&] { return metadataNumber(id, "cols") == 132; }));
    EXPECT_EQ(metadataNumber(id, "rows"), 40);
}

struct ShellViewCase {
    const char* name;
    std::map<std::string, std::optional<std::string>> env;
    std::string expected;
};

class ShellView : public KeeperFixture, public ::testing::WithParamInterface<ShellViewCase> {};

TEST_P(ShellView, ShellSeesTheTerminalRuleAndItsId) {
    for (const auto& [name, value] : GetParam().env)
        env_[name] = value;
    std::string id = startSession(
        {"--cmd", "echo \"[$TERM/$COLORTERM/${TERMINFO-none}/$TOVEL_SHELL_ID]\"; read x"});
    ASSERT_FALSE(id.empty());
    WireConnection client = attachTo(socketPath(id));
    std::string expected = GetParam().expected + id + "]";
    std::string seen;
    EXPECT_TRUE(waitUntil([&] {
        auto frame = client.readFrame(100ms);
        if (frame && frame->type == 4)
            seen += frame->payload;
        return seen.find(expected) != std::string::npos;
    })) << seen;
}

INSTANTIATE_TEST_SUITE_P(
    Keeper, ShellView,
    ::testing::Values(ShellViewCase{"DumbBecomesXterm",
                                    {{"TERM", "dumb"}, {"COLORTERM", "no"}, {"TERMINFO", "/x"}},
                                    "[xterm-256color/truecolor/none/"},
                      ShellViewCase{"MissingBecomesXterm",
                                    {{"TERM", std::nullopt}},
                                    "[xterm-256color/truecolor/none/"},
                      ShellViewCase{"OtherValuesStay",
                                    {{"TERM", "vt100"}, {"COLORTERM", "no"}, {"TERMINFO", "/x"}},
                                    "[vt100/no//x/"}),
    [](const auto& info) { return info.param.name; });

TEST_F(KeeperSession, LoginShellArgumentZeroIsDashBasename) {
    std::string id = startSession({});
    ASSERT_FALSE(id.empty());
    WireConnection client = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(client, kReplayEnd).found);
    client.sendFrame(kInput, "echo \"<$0>\"\r");
    std::string seen;
    EXPECT_TRUE(waitUntil([&] {
        auto frame = client.readFrame(100ms);
        if (frame && frame->type == 4)
            seen += frame->payload;
        return seen.find("<-sh>") != std::string::npos;
    })) << seen;
    client.sendFrame(kInput, "exit\r");
}

TEST_F(KeeperSession, StartFailuresNameTheirCause) {
    RunResult missingCwd = runBinary({"new", "--cwd", dir_.path() + "/missing"}, options());
    EXPECT_EQ(missingCwd.status, 1);
    EXPECT_EQ(missingCwd.err, "keeper startup failed: FileNotFound\n");

    env_["SHELL"] = dir_.path() + "/no-such-shell";
    RunResult badShell = runBinary({"new"}, options());
    EXPECT_EQ(badShell.status, 1);
    EXPECT_EQ(badShell.err.rfind("keeper failed to start (id=", 0), 0u);
    std::string id = badShell.err.substr(27, 32);
    EXPECT_NE(readFile(filePath(id, ".log")).find(" reason=FileNotFound"), std::string::npos);
    struct stat st {};
    EXPECT_NE(::stat(socketPath(id).c_str(), &st), 0);
}

struct EntryCase {
    const char* name;
    std::vector<std::string> args;
    std::string error;
};

class KeeperEntry : public KeeperFixture, public ::testing::WithParamInterface<EntryCase> {};

TEST_P(KeeperEntry, RejectsBadArgumentVectors) {
    std::vector<std::string> args = {"--keeper-exec"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    RunResult result = runBinary(args, options());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "error: " + GetParam().error + "\n");
}

const std::string kId = "0123456789abcdef0123456789abcdef";

INSTANTIATE_TEST_SUITE_P(
    Keeper, KeeperEntry,
    ::testing::Values(EntryCase{"ElevenArguments",
                                {kId, "80", "24", "", "", "3", "", "", "", "", ""},
                                "BadKeeperArgs"},
                      EntryCase{"ThirteenArguments",
                                {kId, "80", "24", "", "", "3", "", "", "", "", "", "", ""},
                                "BadKeeperArgs"},
                      EntryCase{"BadId",
                                {"ABC", "80", "24", "", "", "3", "", "", "", "", "", ""},
                                "InvalidSessionId"},
                      EntryCase{"ZeroColumns",
                                {kId, "0", "24", "", "", "3", "", "", "", "", "", ""},
                                "InvalidDimension"},
                      EntryCase{"NegativeReadyFd",
                                {kId, "80", "24", "", "", "-1", "", "", "", "", "", ""},
                                "InvalidReadyFd"},
                      EntryCase{"EmptyReadyFd",
                                {kId, "80", "24", "", "", "", "", "", "", "", "", ""},
                                "InvalidCharacter"},
                      EntryCase{"HalfALease",
                                {kId, "80", "24", "", "", "3", "", "", "5", "", "", ""},
                                "IncompleteLeaseMetadata"}),
    [](const auto& info) { return info.param.name; });

} // namespace
} // namespace tovel::test
