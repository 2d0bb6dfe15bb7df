// list, inspect and preflight over a runtime directory of fake sessions: a
// listening socket makes a session live, its metadata file describes it.
#include "cli/json_writer.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>

namespace tovel::test {
namespace {

const std::string kLive = "0123456789abcdef0123456789abcdef";
const std::string kMeta = "keeper_pid=10\nshell_pid=11\ncols=80\nrows=24\nstarted_at=5\n"
                          "last_attached_at=6\ncwd_hex=2f746d70\n";

class Listing : public ::testing::Test {
  protected:
    RunOptions options() const {
        RunOptions run;
        run.env["TOVEL_PTYD_DIR"] = dir_.path();
        run.env["NO_COLOR"] = "1";
        return run;
    }
    std::string path(const std::string& id, const std::string& suffix) const {
        return dir_.path() + "/" + id + suffix;
    }
    void write(const std::string& file, const std::string& text) const {
        std::ofstream(dir_.path() + "/" + file, std::ios::binary) << text;
    }
    bool exists(const std::string& file) const {
        struct stat st {};
        return ::stat((dir_.path() + "/" + file).c_str(), &st) == 0;
    }
    TempDir dir_;
};

std::string sessionJson(const std::string& id, const std::string& portable, bool ok,
                        const std::string& rest) {
    return "{\"protocol_version\":1,\"session_id\":\"" + id + "\"," + portable +
           ",\"label\":null,\"kind\":\"shell\"," + rest + ",\"process_state\":\"running\"," +
           "\"metadata_ok\":" + (ok ? "true" : "false");
}

const std::string kNoPortable =
    "\"workspace_id\":null,\"replica_id\":null,\"lease_generation\":"
    "null,\"migration_id\":null,\"agent_kind\":null,\"adapter_id\":null";

TEST_F(Listing, ShowsOnlyLiveSessionsInEveryForm) {
    FakeKeeper live(path(kLive, ".sock"));
    write(kLive + ".meta", kMeta);
    // Stale leftovers of a dead keeper, and names that are not session ids.
    const std::string dead = "fedcba9876543210fedcba9876543210";
    { FakeKeeper gone(path(dead, ".sock")); }
    write(dead + ".sock", "");
    write(dead + ".meta", kMeta);
    write("0123456789ABCDEF0123456789ABCDEF.sock", "");

    RunResult text = runBinary({"list"}, options());
    EXPECT_EQ(text.status, 0);
    std::string flattened = kMeta;
    std::replace(flattened.begin(), flattened.end(), '\n', ' ');
    EXPECT_EQ(text.out, kLive + " " + flattened + "\n");
    // A dead session's files go once its lock is free.
    EXPECT_FALSE(exists(dead + ".sock"));
    EXPECT_FALSE(exists(dead + ".meta"));

    std::string object = sessionJson(kLive, kNoPortable, true,
                                     "\"cwd\":\"/tmp\",\"started_at\":5,\"last_attached_at\":6") +
                         ",\"keeper_pid\":10,\"shell_pid\":11,\"columns\":80,\"rows\":24}";
    RunResult json = runBinary({"list", "--json"}, options());
    EXPECT_EQ(json.out, "{\"protocol_version\":1,\"sessions\":[" + object + "]}\n");

    RunResult inspect = runBinary({"inspect", kLive}, options());
    EXPECT_EQ(inspect.out, kLive + " keeper_pid=10 shell_pid=11 cols=80 rows=24 started_at=5\n");
    RunResult inspectJson = runBinary({"inspect", kLive, "--json"}, options());
    EXPECT_EQ(inspectJson.out, "{\"protocol_version\":1,\"session\":" + object + "}\n");
}

TEST_F(Listing, MalformedMetadataStillListsTheSessionWithNothingKnown) {
    FakeKeeper live(path(kLive, ".sock"));
    write(kLive + ".meta", "keeper_pid=ten\nworkspace_id=nope\n");
    RunResult json = runBinary({"inspect", kLive, "--json"}, options());
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.out,
              "{\"protocol_version\":1,\"session\":" +
                  sessionJson(kLive, kNoPortable, false,
                              "\"cwd\":null,\"started_at\":null,\"last_attached_at\":null") +
                  ",\"keeper_pid\":null,\"shell_pid\":null,\"columns\":null,\"rows\":null}}\n");
}

TEST_F(Listing, PortableFieldsAndHugeGenerationsAreUnquotedNumbers) {
    FakeKeeper live(path(kLive, ".sock"));
    write(kLive + ".meta", kMeta + "workspace_id=11111111-2222-3333-4444-555555555555\n"
                                   "replica_id=aaaaaaaa-2222-3333-4444-555555555555\n"
                                   "lease_generation=18446744073709551615\nagent_kind=a.b\n");
    RunResult json = runBinary({"list", "--json"}, options());
    EXPECT_NE(json.out.find("\"workspace_id\":\"11111111-2222-3333-4444-555555555555\","
                            "\"replica_id\":\"aaaaaaaa-2222-3333-4444-555555555555\","
                            "\"lease_generation\":18446744073709551615,\"migration_id\":null,"
                            "\"agent_kind\":\"a.b\",\"adapter_id\":null"),
              std::string::npos)
        << json.out;
}

TEST_F(Listing, EmptyOrMissingDirectoryListsNothing) {
    RunResult text = runBinary({"list"}, options());
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "");
    RunOptions missing = options();
    missing.env["TOVEL_PTYD_DIR"] = dir_.path() + "/never-made";
    RunResult json = runBinary({"list", "--json"}, missing);
    EXPECT_EQ(json.out, "{\"protocol_version\":1,\"sessions\":[]}\n");
    struct stat st {};
    EXPECT_NE(::stat((dir_.path() + "/never-made").c_str(), &st), 0);
}

TEST_F(Listing, InspectNotFoundForms) {
    RunResult text = runBinary({"inspect", kLive}, options());
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.err, "session " + kLive + ": not running\n");
    RunResult json = runBinary({"inspect", kLive, "--json"}, options());
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.out, "{\"protocol_version\":1,\"error\":{\"code\":\"session_not_found\","
                        "\"session_id\":\"" +
                            kLive + "\"}}\n");
    RunResult usage = runBinary({"inspect"}, options());
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.err, "usage: tovel-ptyd inspect <id> [--json]\n");
    RunResult twice = runBinary({"inspect", kLive, "--json", "--json"}, options());
    EXPECT_EQ(twice.err, "inspect: invalid arguments (DuplicateOption)\n");
}

TEST(JsonWriter, EscapesExactlyTheControlBytesQuotesAndBackslashes) {
    JsonWriter json;
    json.string(std::string("a\"b\\c/d\b\t\n\f\r\x01\x1f\x7f\xc3\xa9", 17));
    EXPECT_EQ(json.text(), "\"a\\\"b\\\\c/d\\b\\t\\n\\f\\r\\u0001\\u001f\x7f\xc3\xa9\"");
}

class Preflight : public Listing {};

const std::string kHead = "{\"protocol_version\":1,\"helper_version\":\"0.2.8\",\"capabilities\":"
                          "[\"interactive_login_shell\"],";

struct PreflightCase {
    const char* name;
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
};

class PreflightAnswer : public Preflight, public ::testing::WithParamInterface<PreflightCase> {};

TEST_P(PreflightAnswer, AnswersInTextAndJson) {
    write("file", "x");
    RunOptions run = options();
    run.env["SHELL"] = "/bin/sh";
    std::vector<std::string> args = {"preflight"};
    for (const auto& arg : GetParam().args)
        args.push_back(arg == "@file" ? dir_.path() + "/file" : arg);
    RunResult result = runBinary(args, run);
    EXPECT_EQ(result.status, GetParam().status);
    std::string out = GetParam().out;
    for (std::size_t at; (at = out.find("@file")) != std::string::npos;)
        out.replace(at, 5, dir_.path() + "/file");
    std::string err = GetParam().err;
    for (std::size_t at; (at = err.find("@file")) != std::string::npos;)
        err.replace(at, 5, dir_.path() + "/file");
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, err);
}

INSTANTIATE_TEST_SUITE_P(
    Cli, PreflightAnswer,
    ::testing::Values(
        PreflightCase{"NothingAsked", {}, 0, "ready\n", ""},
        PreflightCase{"NothingAskedJson",
                      {"--json"},
                      0,
                      kHead + "\"reattach\":false,\"ready\":true,\"sessions\":[]}\n",
                      ""},
        PreflightCase{"CwdIsAFile",
                      {"--json", "--cwd", "@file"},
                      0,
                      kHead + "\"reattach\":false,\"ready\":false,\"error\":{\"code\":"
                              "\"missing_directory\",\"path\":\"@file\",\"message\":\"The remote "
                              "directory does not exist.\"}}\n",
                      ""},
        PreflightCase{"CwdIsAFileText",
                      {"--cwd", "@file"},
                      1,
                      "",
                      "preflight: working directory is unavailable: @file\n"},
        PreflightCase{"ToolPresent", {"--executable", "sh"}, 0, "ready\n", ""},
        PreflightCase{"ToolMissingJson",
                      {"--executable", "no-such-tool-here", "--json"},
                      0,
                      kHead + "\"reattach\":false,\"ready\":false,\"error\":{\"code\":"
                              "\"executable_missing\",\"executable\":\"no-such-tool-here\","
                              "\"message\":\"The requested tool is not executable on the "
                              "remote PATH.\"}}\n",
                      ""},
        PreflightCase{"ToolMissingText",
                      {"--executable", "no-such-tool-here"},
                      1,
                      "",
                      "preflight: executable is unavailable: no-such-tool-here\n"},
        PreflightCase{"UnknownOption",
                      {"--verbose"},
                      2,
                      "",
                      "preflight: invalid arguments (UnknownOption)\n"},
        PreflightCase{"DuplicateOption",
                      {"--cwd", "/", "--cwd", "/"},
                      2,
                      "",
                      "preflight: invalid arguments (DuplicateOption)\n"}),
    [](const auto& info) { return info.param.name; });

TEST_F(Preflight, LiveSessionShortCutsTheChecks) {
    FakeKeeper live(path(kLive, ".sock"));
    write(kLive + ".meta", kMeta);
    RunResult result =
        runBinary({"preflight", "--session", kLive, "--cwd", "/no/such/dir", "--json"}, options());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind(kHead + "\"reattach\":true,\"ready\":true,\"sessions\":[{", 0), 0u)
        << result.out;
}

TEST_F(Preflight, HangingLoginShellIsKilledAndTheToolCountsMissing) {
    write("hang.sh", "#!/bin/sh\nexec sleep 60\n");
    ::chmod((dir_.path() + "/hang.sh").c_str(), 0755);
    RunOptions run = options();
    run.env["SHELL"] = dir_.path() + "/hang.sh";
    run.deadline = std::chrono::milliseconds(15000);
    auto start = std::chrono::steady_clock::now();
    RunResult result = runBinary({"preflight", "--executable", "sh"}, run);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "preflight: executable is unavailable: sh\n");
    EXPECT_GE(took, std::chrono::milliseconds(4500));
}

} // namespace
} // namespace tovel::test
