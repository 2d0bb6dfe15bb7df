// A real keeper, started by `new`, driven over its socket: replay, client
// isolation, shutdown and exit encodings, the lock, and what the shell sees.
#include "keeper_fixture.hpp"

#include <algorithm>
#include <csignal>
#include <unistd.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

class KeeperSession : public KeeperFixture {};

// The output between ReplayStart, which must come first, and ReplayEnd.
Collected replayOf(WireConnection& client) {
    auto start = client.readFrame();
    return start && start->type == frame::ReplayStart ? collectUntil(client, frame::ReplayEnd)
                                                      : Collected{};
}

TEST_F(KeeperSession, ReplayIsExactlyTheLastMebibyteBracketed) {
    // The shell waits for a line before it prints, so that a client can attach first.
    std::string id = startSession({"--cmd", "read go; seq 1 250000; echo done-printing; read x"});
    WireConnection first = attachTo(socketPath(id));
    Collected empty = replayOf(first);
    EXPECT_TRUE(empty.found && empty.output.empty());
    ASSERT_TRUE(first.sendFrame(frame::Input, "go\r"));
    std::string live = collectOutput(first, "done-printing").output;
    ASSERT_GT(live.size(), 1048576u);

    WireConnection second = attachTo(socketPath(id));
    Collected replay = replayOf(second);
    ASSERT_TRUE(replay.found);
    EXPECT_EQ(replay.output, live.substr(live.size() - 1048576));
}

struct MisbehaviourCase {
    const char* name;
    std::string bytes;
    std::string reply = {}; // the one frame it gets before it is dropped
    std::string log = {};   // in the keeper's log
};

class ClientMisbehaviour : public KeeperFixture,
                           public ::testing::WithParamInterface<MisbehaviourCase> {};

// Each of these drops the offending client only: a well-behaved client
// attached before and after still gets live output.
TEST_P(ClientMisbehaviour, DropsOnlyThatClient) {
    std::string id = startSession({"--cmd", "while read line; do echo got-$line; done"});
    WireConnection good = attachTo(socketPath(id));
    ASSERT_TRUE(replayOf(good).found);

    WireConnection bad = WireConnection::connectTo(socketPath(id));
    ASSERT_TRUE(bad.connected());
    bad.send(GetParam().bytes);
    auto reply = bad.readFrame(10s);
    EXPECT_EQ(reply ? frameBytes(reply->type, reply->payload) : "", GetParam().reply);
    EXPECT_TRUE(bad.closedWithin(10s));
    EXPECT_NE(readFile(filePath(id, ".log")).find(GetParam().log), std::string::npos);

    ASSERT_TRUE(good.sendFrame(frame::Input, "ping\r"));
    EXPECT_TRUE(collectOutput(good, "got-ping").found);
}

const std::string kAttached = helloBytes() + frameBytes(frame::Attach, winsizePayload(80, 24));

INSTANTIATE_TEST_SUITE_P(
    Keeper, ClientMisbehaviour,
    ::testing::Values(
        MisbehaviourCase{"WrongVersion", helloBytes(2), frameBytes(frame::VersionMismatch, "\1"),
                         "client proto v2 != keeper v1; rejecting"},
        MisbehaviourCase{"InputBeforeAttach", helloBytes() + frameBytes(frame::Input, "x")},
        MisbehaviourCase{"ZeroColumns",
                         helloBytes() + frameBytes(frame::Attach, winsizePayload(0, 24))},
        MisbehaviourCase{"ShortResizePayload", kAttached + frameBytes(frame::Resize, "abc")},
        MisbehaviourCase{"ZeroLengthField", helloBytes() + std::string("\0\0\0\0\x02", 5)},
        MisbehaviourCase{"HugeLengthField", helloBytes() + std::string("\x00\x40\x00\x01\x02", 5)},
        MisbehaviourCase{"OversizedInputFrame", kAttached + std::string("\x00\x00\x40\x02\x02", 5) +
                                                    std::string(16385, 'x')},
        MisbehaviourCase{"BadShutdownFlag", helloBytes() + frameBytes(frame::Shutdown, "\2")},
        MisbehaviourCase{"SilentPastHandshakeDeadline", "", "", "client handshake timed out fd="}),
    [](const auto& info) { return info.param.name; });

TEST_F(KeeperSession, ThirtyThirdClientIsTurnedAway) {
    std::string id = startSession({"--cmd", "read x"});
    std::vector<WireConnection> clients;
    for (int i = 0; i < 32; ++i) {
        clients.push_back(WireConnection::connectTo(socketPath(id)));
        clients.back().send(helloBytes() + frameBytes(frame::Ping));
        ASSERT_TRUE(collectUntil(clients.back(), frame::Pong).found) << i;
    }
    EXPECT_TRUE(WireConnection::connectTo(socketPath(id)).closedWithin(10s));
    EXPECT_NE(readFile(filePath(id, ".log")).find("rejecting client; at max_clients=32"),
              std::string::npos);
    clients.front().sendFrame(frame::Ping);
    EXPECT_TRUE(collectUntil(clients.front(), frame::Pong).found);
}

// A client that never reads is cut off at its bound instead of stalling the
// shell, and the session goes on serving others.
TEST_F(KeeperSession, ClientThatStopsReadingIsCutOffAndTheShellGoesOn) {
    std::string flooded = dir_.path() + "/flooded";
    std::string id = startSession({"--cmd", "read go; head -c 24000000 /dev/zero | tr '\\0' a; >" +
                                                flooded + "; read x; echo after-$x; read y"});
    WireConnection stalled = attachTo(socketPath(id));
    stalled.sendFrame(frame::Input, "go\r");
    EXPECT_TRUE(waitUntil([&] { return ::access(flooded.c_str(), F_OK) == 0; }, 60s));
    EXPECT_NE(readFile(filePath(id, ".log")).find("err=OutputBackpressure"), std::string::npos);
    EXPECT_TRUE(stalled.closedWithin(10s));
    WireConnection other = attachTo(socketPath(id));
    other.sendFrame(frame::Input, "ok\r");
    EXPECT_TRUE(collectOutput(other, "after-ok").found);
}

struct ShutdownCase {
    const char* name;
    char force;
    std::uint32_t exitPayload;
};

class ShutdownRequest : public KeeperFixture, public ::testing::WithParamInterface<ShutdownCase> {};

TEST_P(ShutdownRequest, AcknowledgesSignalsShellAndReportsItsDeath) {
    // bash clears the TERM trap as the command script asks (a POSIX sh may
    // keep an interactive shell's ignored SIGTERM); signal once it runs.
    env_["SHELL"] = "/bin/bash";
    std::string id = startSession({"--cmd", "echo running; sleep 100"});
    WireConnection watcher = attachTo(socketPath(id));
    ASSERT_TRUE(collectOutput(watcher, "running", 20s).found);
    WireConnection killer = WireConnection::connectTo(socketPath(id));
    killer.send(helloBytes() + frameBytes(frame::Shutdown, std::string(1, GetParam().force)));
    auto ack = killer.readFrame();
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->type, frame::ShutdownAck);
    Collected exit = collectUntil(watcher, frame::Exit);
    ASSERT_TRUE(exit.found);
    EXPECT_EQ(exit.payload, u32Payload(GetParam().exitPayload));
    EXPECT_TRUE(waitGone(id));
}

INSTANTIATE_TEST_SUITE_P(Keeper, ShutdownRequest,
                         ::testing::Values(ShutdownCase{"Graceful", 0, 0xFFFFFF8F},
                                           ShutdownCase{"Forced", 1, 0xFFFFFF89}),
                         [](const auto& info) { return info.param.name; });

// (A normal exit's status is seen end to end in the walkthrough.)
TEST_F(KeeperSession, ShellKilledBySignalGivesTheHighBitsExit) {
    std::string killed = startSession({"--cmd", "read x"});
    WireConnection watcher = attachTo(socketPath(killed));
    ASSERT_TRUE(collectUntil(watcher, frame::ReplayEnd).found);
    // The shell replaced itself with `sh -c`, which runs `read` itself.
    auto shell = metadataNumber(killed, "shell_pid");
    ASSERT_TRUE(shell && *shell > 0);
    ::kill(static_cast<int>(*shell), SIGKILL);
    EXPECT_EQ(collectUntil(watcher, frame::Exit).payload, u32Payload(0xFFFFFF89));
}

TEST_F(KeeperSession, SecondKeeperForTheSameIdExitsQuietly) {
    std::string id = startSession({"--cmd", "read x"});
    std::string logBefore = readFile(filePath(id, ".log"));
    RunResult second = runBinary(
        {"--keeper-exec", id, "80", "24", "", "", "1", "", "", "", "", "", ""}, options());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "");
    EXPECT_EQ(readFile(filePath(id, ".log")), logBefore);
    WireConnection client = attachTo(socketPath(id));
    EXPECT_TRUE(collectUntil(client, frame::ReplayEnd).found);
}

// The keeper is not the caller's child and records the session. The shell
// holds its terminal, sized as asked, as descriptors 0, 1 and 2 and nothing
// else (no socket, lock, log or ready pipe of the keeper), and runs the
// command in the user's shell with -c.
TEST_F(KeeperSession, MetadataAndTheShellsTerminal) {
    std::string size = dir_.path() + "/size";
    std::string id =
        startSession({"--cwd", "/tmp", "--cols", "100", "--cmd",
                      "stty size >" + size +
                          "; echo fds:; ls -1 /proc/$$/fd; echo listed; read x; "
                          "stty size; echo \"<$(tr '\\0' ' ' </proc/$$/cmdline)\"; read y"});
    EXPECT_TRUE(waitUntil([&] { return readFile(size) == "24 100\n"; })) << readFile(size);
    std::string meta = readFile(filePath(id, ".meta"));
    EXPECT_NE(meta.find("cols=100\nrows=24\n"), std::string::npos);
    EXPECT_NE(meta.find("cwd_hex=2f746d70\n"), std::string::npos);
    EXPECT_EQ(std::count(meta.begin(), meta.end(), '\n'), 7);
    std::string stat =
        readFile("/proc/" + std::to_string(metadataNumber(id, "keeper_pid").value_or(0)) + "/stat");
    EXPECT_NE(std::stoi(stat.substr(stat.rfind(')') + 4)), ::getpid());

    WireConnection client = attachTo(socketPath(id), 132, 40);
    std::string seen = collectOutput(client, "listed").output;
    EXPECT_NE(seen.find("fds:\r\n0\r\n1\r\n2\r\nlisted"), std::string::npos) << seen;
    EXPECT_TRUE(waitUntil([&] { return metadataNumber(id, "cols") == 132; }));
    EXPECT_EQ(metadataNumber(id, "rows"), 40);
    client.sendFrame(frame::Input, "\r");
    seen = collectOutput(client, "size >").output;
    EXPECT_NE(seen.find("40 132\r\n</bin/sh -c stty size >"), std::string::npos) << seen;
}

// A missing, empty or "dumb" TERM becomes xterm-256color with truecolor and
// no TERMINFO; any other terminal stays as it is. The shell knows its id.
TEST_F(KeeperSession, ShellSeesTheTerminalRuleAndItsId) {
    const std::pair<Env, std::string> cases[] = {
        {{{"TERM", "dumb"}, {"COLORTERM", "no"}, {"TERMINFO", "/x"}},
         "xterm-256color/truecolor/none"},
        {{{"TERM", ""}}, "xterm-256color/truecolor/none"},
        {{{"TERM", std::nullopt}}, "xterm-256color/truecolor/none"},
        {{{"TERM", "vt100"}, {"COLORTERM", "no"}, {"TERMINFO", "/x"}}, "vt100/no//x"}};
    for (const auto& [env, expected] : cases) {
        env_ = env;
        std::string id = startSession(
            {"--cmd", "echo \"[$TERM/$COLORTERM/${TERMINFO-none}/$TOVEL_SHELL_ID]\"; read x"});
        WireConnection client = attachTo(socketPath(id));
        EXPECT_TRUE(collectOutput(client, "[" + expected + "/" + id + "]").found) << expected;
    }
}

TEST_F(KeeperSession, ShellThatCannotStartIsNamedInTheLog) {
    env_["SHELL"] = dir_.path() + "/no-such-shell";
    RunResult result = runBinary({"new"}, options());
    EXPECT_EQ(result.status, 1);
    ASSERT_EQ(result.err.rfind("keeper failed to start (id=", 0), 0u) << result.err;
    std::string id = result.err.substr(27, 32);
    EXPECT_EQ(result.err, "keeper failed to start (id=" + id + ")\n");
    EXPECT_NE(readFile(filePath(id, ".log")).find(" reason=FileNotFound"), std::string::npos);
    EXPECT_NE(::access(socketPath(id).c_str(), F_OK), 0);
}

} // namespace
} // namespace tovel::test
