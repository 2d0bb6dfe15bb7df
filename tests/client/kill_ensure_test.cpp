// kill and ensure against fake keepers: every kill outcome line, and the
// takeover refusals of ensure, local and from the keeper.
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <sys/socket.h>
#include <thread>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

const std::string kId = "ffeeddccbbaa99887766554433221100";
const std::string kSession = "session " + kId;
const std::string kRecorded = "workspace_id=11111111-2222-3333-4444-555555555555\n"
                              "replica_id=aaaaaaaa-2222-3333-4444-555555555555\n";

std::vector<std::string> ensureArgs(const std::string& generation) {
    return {"ensure",
            kId,
            "--workspace-id",
            "11111111-2222-3333-4444-555555555555",
            "--replica-id",
            "aaaaaaaa-2222-3333-4444-555555555555",
            "--lease-generation",
            generation};
}

class ClientCommand : public ::testing::Test {
  protected:
    // Runs the command against a fake keeper whose metadata file holds the
    // portable fields `record` (none when empty); `serve` handles the
    // connection after the liveness probe, if the command makes one.
    RunResult run(const std::vector<std::string>& args, const std::string& record,
                  const std::function<void(FakeKeeper&)>& serve = nullptr) {
        if (!record.empty())
            dir_.writeFile(kId + ".meta", "keeper_pid=1\nshell_pid=2\ncols=80\nrows=24\n"
                                          "started_at=1\nlast_attached_at=1\ncwd_hex=2f\n" +
                                              record);
        FakeKeeper keeper(dir_.path() + "/" + kId + ".sock");
        std::thread serving([&] {
            keeper.accept(); // the liveness probe connects and closes at once
            if (serve)
                serve(keeper);
        });
        RunResult result = runBinary(args, runtimeOptions(dir_.path()));
        serving.join();
        return result;
    }

    TempDir dir_;
};

struct AnswerCase {
    const char* name;
    std::vector<std::string> args;
    std::optional<std::string> reply; // nullopt: the keeper closes at once; "": silence
    int status;
    std::string err;
};

class KeeperAnswer : public ClientCommand, public ::testing::WithParamInterface<AnswerCase> {};

// kill sends Shutdown, ensure PortableTakeover; the keeper's reply (or its
// silence) decides what the command prints and how it exits.
TEST_P(KeeperAnswer, DecidesTheOutcome) {
    const AnswerCase& c = GetParam();
    std::uint8_t request = c.args[0] == "kill" ? frame::Shutdown : frame::Takeover;
    auto serve = [&](FakeKeeper& keeper) {
        WireConnection client = keeper.accept();
        auto hello = client.readFrame();
        auto asked = client.readFrame();
        ASSERT_TRUE(hello && asked);
        EXPECT_EQ(asked->type, request);
        if (!c.reply)
            return;
        // A reply ends the keeper's side (a silent one never does); kill
        // --force then probes until the socket stops answering.
        if (client.send(*c.reply) && !c.reply->empty())
            ::shutdown(client.fd(), SHUT_WR);
        keeper.stopListening();
        client.closedWithin(30s); // until the command is done with it
    };
    RunResult result = run(c.args, kRecorded + "lease_generation=8\n", serve);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, c.err);
}

const std::vector<std::string> kKill = {"kill", kId};

// A rejection with its reason byte and, for stale leases, two u64 generations.
std::string rejected(char reason, std::uint32_t expected = 0, std::uint32_t other = 0) {
    std::string generations =
        std::string(4, '\0') + u32Payload(expected) + std::string(4, '\0') + u32Payload(other);
    return frameBytes(frame::TakeoverRejected,
                      reason + (reason == 3 || reason == 4 ? generations : ""));
}

INSTANTIATE_TEST_SUITE_P(
    Client, KeeperAnswer,
    ::testing::Values(
        AnswerCase{"KillAcknowledged", kKill, frameBytes(frame::ShutdownAck), 0, ""},
        AnswerCase{
            "KillForcedAndGone", {"kill", kId, "--force"}, frameBytes(frame::ShutdownAck), 0, ""},
        AnswerCase{"KillNeverAnswered", kKill, "", 1,
                   kSession + ": keeper does not support socket-controlled shutdown\n"},
        AnswerCase{"KillClosedEarly", kKill, std::nullopt, 1,
                   kSession + ": keeper closed before shutdown acknowledgement\n"},
        AnswerCase{"KillWrongFrame", kKill, frameBytes(frame::Pong), 1,
                   kSession + ": unexpected shutdown response\n"},
        AnswerCase{"KillVersionMismatch", kKill, frameBytes(frame::VersionMismatch, "\3"), 1,
                   kSession + ": protocol mismatch (keeper v3, client v1)\n"},
        AnswerCase{"KillTruncatedAnswer", kKill, std::string("\0\0", 2), 1,
                   kSession + ": invalid shutdown acknowledgement: UnexpectedEof\n"},
        // Accepted: the attach proceeds and, its input being empty, detaches.
        AnswerCase{"TakeoverAccepted", ensureArgs("8"), frameBytes(frame::TakeoverAccepted), 0, ""},
        AnswerCase{"TakeoverIgnored", ensureArgs("8"), "", 3,
                   "tovel-ptyd: portable takeover metadata is unsupported by the live keeper\n"},
        AnswerCase{"TakeoverMissing", ensureArgs("8"), rejected(1), 3,
                   "tovel-ptyd: portable_metadata_missing\n"},
        AnswerCase{"TakeoverMismatch", ensureArgs("8"), rejected(2), 3,
                   "tovel-ptyd: portable_metadata_mismatch\n"},
        AnswerCase{"TakeoverKeeperStale", ensureArgs("8"), rejected(3, 8, 7), 3,
                   "tovel-ptyd: portable_metadata_stale expected_generation=8 "
                   "observed_generation=7\n"},
        AnswerCase{"TakeoverRequestStale", ensureArgs("8"), rejected(4, 9, 8), 3,
                   "tovel-ptyd: portable_request_stale expected_generation=9 "
                   "received_generation=8\n"},
        AnswerCase{"TakeoverMalformedRecord", ensureArgs("8"), rejected(5), 3,
                   "tovel-ptyd: portable_metadata_malformed\n"},
        AnswerCase{"TakeoverBadRejection", ensureArgs("8"),
                   frameBytes(frame::TakeoverRejected, "\3"), 3,
                   "tovel-ptyd: live keeper returned malformed portable takeover rejection\n"},
        AnswerCase{"TakeoverUnexpectedFrame", ensureArgs("8"), frameBytes(frame::Pong), 3, ""}),
    [](const auto& info) { return info.param.name; });

// Judged from the metadata file before anything is sent to the keeper.
TEST_F(ClientCommand, EnsureRefusesAStaleOrDifferentRecordLocally) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "portable_metadata_missing field=session_metadata"},
        {kRecorded + "lease_generation=7\n",
         "portable_metadata_stale expected_generation=8 observed_generation=7"},
        {kRecorded + "lease_generation=9\n",
         "portable_request_stale expected_generation=9 received_generation=8"},
        {"workspace_id=11111111-2222-3333-4444-555555555555\n"
         "replica_id=bbbbbbbb-2222-3333-4444-555555555555\nlease_generation=8\n",
         "portable_metadata_mismatch field=replica_id"},
        {kRecorded, "portable_metadata_missing field=lease_generation"}};
    for (const auto& [record, line] : cases) {
        RunResult result = run(ensureArgs("8"), record);
        EXPECT_EQ(result.status, 3);
        EXPECT_EQ(result.err, "ensure: " + line + "\n");
    }
}

} // namespace
} // namespace tovel::test
