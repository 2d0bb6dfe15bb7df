// list, inspect and preflight over a runtime directory of fake sessions: a
// listening socket makes a session live, its metadata file describes it.
#include "cli/json_writer.hpp"
#include "support/session_fixture.hpp"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>

namespace tovel::test {
namespace {

const std::string kLive = "0123456789abcdef0123456789abcdef";
const std::string kMeta = "keeper_pid=10\nshell_pid=11\ncols=80\nrows=24\nstarted_at=5\n"
                          "last_attached_at=6\ncwd_hex=2f746d70\n";
const std::string kPortable = "workspace_id=11111111-2222-3333-4444-555555555555\n"
                              "replica_id=aaaaaaaa-2222-3333-4444-555555555555\n"
                              "lease_generation=18446744073709551615\nagent_kind=a.b\n";

class Listing : public SessionFixture {};

TEST_F(Listing, ShowsOnlyLiveSessionsInEveryForm) {
    FakeKeeper live(socketPath(kLive));
    dir_.writeFile(kLive + ".meta", kMeta + kPortable);
    // Stale leftovers of a dead keeper, and names that are not session ids.
    const std::string dead = "fedcba9876543210fedcba9876543210";
    { FakeKeeper gone(socketPath(dead)); }
    dir_.writeFile(dead + ".sock", "");
    dir_.writeFile(dead + ".meta", kMeta);
    dir_.writeFile("0123456789ABCDEF0123456789ABCDEF.sock", "");

    RunResult text = runBinary({"list"}, options());
    EXPECT_EQ(text.status, 0);
    std::string flattened = kMeta + kPortable;
    std::replace(flattened.begin(), flattened.end(), '\n', ' ');
    EXPECT_EQ(text.out, kLive + " " + flattened + "\n");
    // A dead session's files go once its lock is free.
    EXPECT_NE(::access(socketPath(dead).c_str(), F_OK), 0);
    EXPECT_NE(::access(filePath(dead, ".meta").c_str(), F_OK), 0);

    // Generations above 2^53 stay unquoted numbers.
    std::string object =
        "{\"protocol_version\":1,\"session_id\":\"" + kLive +
        "\",\"workspace_id\":\"11111111-2222-3333-4444-555555555555\",\"replica_id\":"
        "\"aaaaaaaa-2222-3333-4444-555555555555\",\"lease_generation\":18446744073709551615,"
        "\"migration_id\":null,\"agent_kind\":\"a.b\",\"adapter_id\":null,\"label\":null,\"kind\":"
        "\"shell\",\"cwd\":\"/tmp\",\"started_at\":5,\"last_attached_at\":6,\"process_state\":"
        "\"running\",\"metadata_ok\":true,\"keeper_pid\":10,\"shell_pid\":11,\"columns\":80,"
        "\"rows\":24}";
    RunResult json = runBinary({"list", "--json"}, options());
    EXPECT_EQ(json.out, "{\"protocol_version\":1,\"sessions\":[" + object + "]}\n");
    RunResult inspect = runBinary({"inspect", kLive}, options());
    EXPECT_EQ(inspect.out, kLive + " keeper_pid=10 shell_pid=11 cols=80 rows=24 started_at=5\n");
    RunResult inspectJson = runBinary({"inspect", kLive, "--json"}, options());
    EXPECT_EQ(inspectJson.out, "{\"protocol_version\":1,\"session\":" + object + "}\n");
    // A live session skips the directory check.
    RunResult preflight =
        runBinary({"preflight", "--session", kLive, "--cwd", "/no/such/dir", "--json"}, options());
    EXPECT_EQ(preflight.out, "{\"protocol_version\":1,\"helper_version\":\"0.2.8\","
                             "\"capabilities\":[\"interactive_login_shell\"],\"reattach\":true,"
                             "\"ready\":true,\"sessions\":[" +
                                 object + "]}\n");
}

TEST_F(Listing, MalformedMetadataStillListsTheSessionWithNothingKnown) {
    FakeKeeper live(socketPath(kLive));
    dir_.writeFile(kLive + ".meta", "keeper_pid=ten\nworkspace_id=nope\n");
    RunResult json = runBinary({"inspect", kLive, "--json"}, options());
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.out,
              "{\"protocol_version\":1,\"session\":{\"protocol_version\":1,\"session_id\":\"" +
                  kLive +
                  "\",\"workspace_id\":null,\"replica_id\":null,\"lease_generation\":null,"
                  "\"migration_id\":null,\"agent_kind\":null,\"adapter_id\":null,\"label\":null,"
                  "\"kind\":\"shell\",\"cwd\":null,\"started_at\":null,\"last_attached_at\":null,"
                  "\"process_state\":\"running\",\"metadata_ok\":false,\"keeper_pid\":null,"
                  "\"shell_pid\":null,\"columns\":null,\"rows\":null}}\n");
}

TEST_F(Listing, PreflightKillsAHangingLoginShellAndCountsTheToolMissing) {
    dir_.writeFile("hang.sh", "#!/bin/sh\nexec sleep 60\n");
    ::chmod(filePath("hang", ".sh").c_str(), 0755);
    env_["SHELL"] = filePath("hang", ".sh");
    RunOptions run = options();
    run.deadline = std::chrono::milliseconds(30000);
    auto start = std::chrono::steady_clock::now();
    RunResult result = runBinary({"preflight", "--executable", "sh"}, run);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "preflight: executable is unavailable: sh\n");
    // The probe gives the shell its five seconds before it stops waiting.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4500));
}

} // namespace
} // namespace tovel::test
