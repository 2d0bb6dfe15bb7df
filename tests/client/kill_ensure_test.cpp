// kill and ensure against fake keepers: every kill outcome line, and the
// takeover refusals of ensure, local and from the keeper.
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <thread>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kVersionMismatch = 9, kShutdown = 12, kShutdownAck = 13, kTakeover = 14,
                       kAccepted = 15, kRejected = 16, kPong = 7;
const std::string kId = "ffeeddccbbaa99887766554433221100";
const std::string kWorkspace = "11111111-2222-3333-4444-555555555555";
const std::string kReplica = "aaaaaaaa-2222-3333-4444-555555555555";

class ClientCommand : public ::testing::Test {
  protected:
    RunOptions options() const {
        RunOptions run;
        run.env["TOVEL_PTYD_DIR"] = dir_.path();
        run.env["NO_COLOR"] = "1";
        return run;
    }
    std::string path(const std::string& suffix) const { return dir_.path() + "/" + kId + suffix; }
    // Runs the command while `keeper` serves connections on another thread.
    RunResult runWithKeeper(const std::vector<std::string>& args,
                            const std::function<void(FakeKeeper&)>& keeper) {
        FakeKeeper fake(path(".sock"));
        std::thread serving([&] { keeper(fake); });
        RunResult result = runBinary(args, options());
        serving.join();
        return result;
    }
    void writeMetadata(const std::string& extra) {
        std::ofstream(path(".meta")) << "keeper_pid=1\nshell_pid=2\ncols=80\nrows=24\n"
                                        "started_at=1\nlast_attached_at=1\ncwd_hex=2f\n"
                                     << extra;
    }

    TempDir dir_;
};

void acceptProbe(FakeKeeper& keeper) {
    keeper.accept(); // the liveness probe connects and closes at once
}

struct KillCase {
    const char* name;
    std::vector<std::string> extraArgs;
    std::function<void(WireConnection&)> answer;
    int status;
    std::string err;
};

class KillOutcome : public ClientCommand, public ::testing::WithParamInterface<KillCase> {};

TEST_P(KillOutcome, PrintsItsLine) {
    std::vector<std::string> args = {"kill", kId};
    args.insert(args.end(), GetParam().extraArgs.begin(), GetParam().extraArgs.end());
    RunResult result = runWithKeeper(args, [&](FakeKeeper& keeper) {
        acceptProbe(keeper);
        WireConnection client = keeper.accept();
        auto hello = client.readFrame();
        auto shutdown = client.readFrame();
        if (!hello || !shutdown || shutdown->type != kShutdown)
            return;
        GetParam().answer(client);
        // With --force the command probes until the socket stops answering.
        keeper.stopListening();
    });
    EXPECT_EQ(result.status, GetParam().status);
    EXPECT_EQ(result.err, GetParam().err.empty() ? "" : "session " + kId + GetParam().err + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Kill, KillOutcome,
    ::testing::Values(
        KillCase{"Acknowledged", {}, [](WireConnection& c) { c.sendFrame(kShutdownAck); }, 0, ""},
        KillCase{"ForcedAndGone",
                 {"--force"},
                 [](WireConnection& c) { c.sendFrame(kShutdownAck); },
                 0,
                 ""},
        KillCase{"NeverAnswers",
                 {},
                 [](WireConnection&) { std::this_thread::sleep_for(1500ms); },
                 1,
                 ": keeper does not support socket-controlled shutdown"},
        KillCase{"ClosesEarly",
                 {},
                 [](WireConnection& c) { c.close(); },
                 1,
                 ": keeper closed before shutdown acknowledgement"},
        KillCase{"WrongFrame",
                 {},
                 [](WireConnection& c) { c.sendFrame(kPong); },
                 1,
                 ": unexpected shutdown response"},
        KillCase{"VersionMismatch",
                 {},
                 [](WireConnection& c) { c.sendFrame(kVersionMismatch, std::string(1, '\3')); },
                 1,
                 ": protocol mismatch (keeper v3, client v1)"},
        KillCase{"TruncatedAnswer",
                 {},
                 [](WireConnection& c) { c.send(std::string("\0\0", 2)); },
                 1,
                 ": invalid shutdown acknowledgement: UnexpectedEof"}),
    [](const auto& info) { return info.param.name; });

TEST_F(ClientCommand, KillOfANonAnsweringSocketIsNotRunning) {
    RunResult missing = runBinary({"kill", kId}, options());
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "session " + kId + ": not running\n");
    RunResult usage = runBinary({"kill", "FFEEDDCCBBAA99887766554433221100"}, options());
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.err, "kill: id must be 32 lowercase-hex chars\n");
    RunResult twice = runBinary({"kill", kId, "--force", "--force"}, options());
    EXPECT_EQ(twice.status, 2);
    EXPECT_EQ(twice.err, "kill: invalid arguments (DuplicateOption)\n");
}

std::vector<std::string> ensureArgs(const std::string& generation) {
    return {"ensure",       kId,      "--workspace-id",     kWorkspace,
            "--replica-id", kReplica, "--lease-generation", generation};
}

struct LocalRefusal {
    const char* name;
    std::string record;
    std::string generation;
    std::string err;
};

class EnsureLocalRefusal : public ClientCommand,
                           public ::testing::WithParamInterface<LocalRefusal> {};

// Judged from the metadata file before anything is sent to the keeper.
TEST_P(EnsureLocalRefusal, ExitsThreeWithItsLine) {
    if (!GetParam().record.empty())
        writeMetadata(GetParam().record);
    RunResult result = runWithKeeper(ensureArgs(GetParam().generation), acceptProbe);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err, GetParam().err);
}

const std::string kRecorded = "workspace_id=" + kWorkspace + "\nreplica_id=" + kReplica + "\n";

INSTANTIATE_TEST_SUITE_P(
    Ensure, EnsureLocalRefusal,
    ::testing::Values(
        LocalRefusal{"NoRecord", "", "8",
                     "ensure: portable_metadata_missing field=session_metadata\n"},
        LocalRefusal{
            "KeeperStale", kRecorded + "lease_generation=7\n", "8",
            "ensure: portable_metadata_stale expected_generation=8 observed_generation=7\n"},
        LocalRefusal{
            "RequestStale", kRecorded + "lease_generation=9\n", "8",
            "ensure: portable_request_stale expected_generation=9 received_generation=8\n"},
        LocalRefusal{"ReplicaDiffers",
                     "workspace_id=" + kWorkspace +
                         "\nreplica_id=bbbbbbbb-2222-3333-4444-555555555555\nlease_generation=8\n",
                     "8", "ensure: portable_metadata_mismatch field=replica_id\n"},
        LocalRefusal{"GenerationMissing", kRecorded, "8",
                     "ensure: portable_metadata_missing field=lease_generation\n"}),
    [](const auto& info) { return info.param.name; });

struct KeeperAnswer {
    const char* name;
    std::function<void(WireConnection&)> answer;
    int status;
    std::string err;
};

class EnsureTakeover : public ClientCommand, public ::testing::WithParamInterface<KeeperAnswer> {};

TEST_P(EnsureTakeover, KeeperAnswerDecides) {
    writeMetadata(kRecorded + "lease_generation=8\n");
    RunResult result = runWithKeeper(ensureArgs("8"), [&](FakeKeeper& keeper) {
        acceptProbe(keeper);
        WireConnection client = keeper.accept();
        auto hello = client.readFrame();
        auto takeover = client.readFrame();
        if (!hello || !takeover || takeover->type != kTakeover)
            return;
        GetParam().answer(client);
    });
    EXPECT_EQ(result.status, GetParam().status);
    EXPECT_EQ(result.err, GetParam().err);
}

std::string rejection(char reason, std::uint64_t expected = 0, std::uint64_t other = 0) {
    std::string payload(1, reason);
    if (reason == 3 || reason == 4) {
        for (std::uint64_t value : {expected, other})
            for (int shift = 56; shift >= 0; shift -= 8)
                payload.push_back(static_cast<char>((value >> shift) & 0xff));
    }
    return payload;
}

INSTANTIATE_TEST_SUITE_P(
    Ensure, EnsureTakeover,
    ::testing::Values(
        // Accepted: the attach proceeds and, its input being empty, detaches.
        KeeperAnswer{"Accepted",
                     [](WireConnection& c) {
                         c.sendFrame(kAccepted);
                         c.readFrame(); // Attach
                     },
                     0, ""},
        KeeperAnswer{"OldKeeperIgnoresIt",
                     [](WireConnection&) { std::this_thread::sleep_for(2500ms); }, 3,
                     "tovel-ptyd: portable takeover metadata is unsupported by the live keeper\n"},
        KeeperAnswer{"Missing", [](WireConnection& c) { c.sendFrame(kRejected, rejection(1)); }, 3,
                     "tovel-ptyd: portable_metadata_missing\n"},
        KeeperAnswer{"Mismatch", [](WireConnection& c) { c.sendFrame(kRejected, rejection(2)); }, 3,
                     "tovel-ptyd: portable_metadata_mismatch\n"},
        KeeperAnswer{"KeeperStale",
                     [](WireConnection& c) { c.sendFrame(kRejected, rejection(3, 8, 7)); }, 3,
                     "tovel-ptyd: portable_metadata_stale expected_generation=8 "
                     "observed_generation=7\n"},
        KeeperAnswer{"RequestStale",
                     [](WireConnection& c) { c.sendFrame(kRejected, rejection(4, 9, 8)); }, 3,
                     "tovel-ptyd: portable_request_stale expected_generation=9 "
                     "received_generation=8\n"},
        KeeperAnswer{"Malformed", [](WireConnection& c) { c.sendFrame(kRejected, rejection(5)); },
                     3, "tovel-ptyd: portable_metadata_malformed\n"},
        KeeperAnswer{"BadRejection",
                     [](WireConnection& c) { c.sendFrame(kRejected, std::string(1, '\3')); }, 3,
                     "tovel-ptyd: live keeper returned malformed portable takeover rejection\n"},
        KeeperAnswer{"UnexpectedFrame", [](WireConnection& c) { c.sendFrame(kPong); }, 3, ""}),
    [](const auto& info) { return info.param.name; });

TEST_F(ClientCommand, EnsureArgumentChecks) {
    RunResult none = runBinary({"ensure"}, options());
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err,
              "usage: tovel-ptyd ensure <id> [spawn options] [portable metadata options]\n");
    RunResult badId = runBinary({"ensure", "xyz"}, options());
    EXPECT_EQ(badId.status, 2);
    EXPECT_EQ(badId.err.rfind("ensure: id must be 32 lowercase-hex chars (got ", 0), 0u);
    RunResult halfLease = runBinary({"ensure", kId, "--workspace-id", kWorkspace}, options());
    EXPECT_EQ(halfLease.status, 2);
    EXPECT_EQ(halfLease.err, "ensure: invalid arguments (InvalidOptionValue)\n");
}

} // namespace
} // namespace tovel::test
