// The commands as a user meets them before any session exists: exact bytes
// and exit statuses of usage, version, unknown words, the --dir pre-scan, the
// argument checks of every command, and the answers about an empty runtime
// directory.
#include "cli/commands/usage.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tovel::test {
namespace {

// Stands for the usage text, which HelpPrintsTheUsageText pins down.
const std::string kUsage = "<usage>";
const std::string kVersion = "tovel-ptyd v0.2.8\n";
const std::string kId(32, 'a');
const std::string kUpperId(32, 'A');
const std::string kWorkspace = "11111111-2222-3333-4444-555555555555";
const std::string kPreflightHead = "{\"protocol_version\":1,\"helper_version\":\"0.2.8\","
                                   "\"capabilities\":[\"interactive_login_shell\"],"
                                   "\"reattach\":false,";

struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
    Env env = {};
};

void PrintTo(const Case& c, std::ostream* os) {
    for (const auto& arg : c.args)
        *os << "'" << arg << "' ";
}

class Command : public testing::TestWithParam<Case> {
  protected:
    TempDir dir;
};

TEST_P(Command, ExactOutputAndStatus) {
    const Case& c = GetParam();
    RunOptions options = runtimeOptions(dir.path());
    for (const auto& [name, value] : c.env)
        options.env[name] = value;
    RunResult run = runBinary(c.args, options);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, c.out == kUsage ? runBinary({"--help"}).out : c.out);
    EXPECT_EQ(run.err, c.err);
}

// 1,492 bytes in 27 lines; --dir, --keeper-exec, --version and --help are not in it.
TEST(FrontEnd, HelpPrintsTheUsageText) {
    std::string usage = runBinary({"--help"}).out;
    EXPECT_EQ(usage.size(), 1492u);
    EXPECT_EQ(std::count(usage.begin(), usage.end(), '\n'), 27);
    EXPECT_EQ(usage.rfind("tovel-ptyd \u2014 persistent-PTY keeper for Tovel\n\nUsage:\n", 0), 0u);
    EXPECT_TRUE(
        usage.ends_with("`TOVEL_PTYD_SERVE_PORT <n>`. Runs until the SSH channel drops.\n"));
    for (const char* hidden : {"--dir", "--keeper-exec", "--version", "--help"})
        EXPECT_EQ(usage.find(hidden), std::string::npos) << hidden;
}

// Only a line on standard error.
Case err(const std::vector<std::string>& args, int status, const std::string& text) {
    return {args, status, "", text};
}
// Only standard output.
Case out(const std::vector<std::string>& args, int status, const std::string& text) {
    return {args, status, text, ""};
}
// The argument report of the command named by the first argument; status 2.
Case invalid(const std::vector<std::string>& args, const std::string& error) {
    return err(args, 2, args[0] + ": invalid arguments (" + error + ")\n");
}
// The keeper entry given a valid vector with one argument changed, or cut.
Case entry(std::size_t size, std::size_t field, const std::string& value, const std::string& name) {
    std::vector<std::string> args{"--keeper-exec", kId, "80", "24", "", "", "3"};
    args.resize(size);
    args[field] = field == 0 ? args[0] : value;
    return err(args, 1, "error: " + name + "\n");
}

const std::string kBadId = " id must be 32 lowercase-hex chars\n";

INSTANTIATE_TEST_SUITE_P(
    FrontEnd, Command,
    testing::Values(Case{{}, 2, kUsage, ""}, Case{{"--help"}, 0, kUsage, ""},
                    Case{{"-h", "extra"}, 0, kUsage, ""}, Case{{"--version"}, 0, kVersion, ""},
                    Case{{"-v"}, 0, kVersion, ""},
                    Case{{"--version", "--dir", "/x"}, 0, kVersion, ""},
                    invalid({"--version", "--dir"}, "MissingOptionValue"),
                    Case{{"frob"}, 2, kUsage, "unknown subcommand: frob\n"},
                    Case{{"NEW"}, 2, kUsage, "unknown subcommand: NEW\n"},
                    Case{{""}, 2, kUsage, "unknown subcommand: \n"},
                    invalid({"frob", "--cmd"}, "MissingOptionValue"),
                    invalid({"frob", "--dir", "/a", "--dir", "/b"}, "DuplicateOption"),
                    invalid({"list", "--dir", "x"}, "InvalidDirectory"),
                    invalid({"list", "--dir", ""}, "InvalidDirectory"),
                    invalid({"list", "--json", "--json"}, "DuplicateOption"),
                    invalid({"list", "--dir", "/a", "--json", "--dir", "/b"}, "DuplicateOption"),
                    invalid({"list", "--all"}, "UnknownOption"),
                    err({"attach"}, 2, "usage: tovel-ptyd attach <id> [--dir PATH]\n"),
                    err({"attach", kUpperId}, 2, "attach:" + kBadId),
                    err({"attach", std::string(31, 'a')}, 2, "attach:" + kBadId),
                    err({"attach", std::string(33, 'a'), "--json"}, 2, "attach:" + kBadId),
                    invalid({"attach", kId, "--json"}, "UnknownOption"),
                    invalid({"attach", kId, "--x", "/a"}, "UnknownOption"),
                    invalid({"attach", kId, "--dir", "/a", "x"}, "UnknownOption"),
                    invalid({"attach", kId, "--dir", "rel"}, "InvalidDirectory"),
                    invalid({"new", "--cols", "--dir", "/x"}, "InvalidOptionValue"),
                    invalid({"new", "--json"}, "UnknownOption"),
                    invalid({"new", "--rows", "5", "--rows", "6"}, "DuplicateOption"),
                    invalid({"new", "--cwd"}, "MissingOptionValue"),
                    // The keeper entry skips the --dir pre-scan.
                    entry(13, 9, "5", "IncompleteLeaseMetadata"), entry(12, 0, "", "BadKeeperArgs"),
                    entry(14, 0, "", "BadKeeperArgs"), entry(13, 1, "ABC", "InvalidSessionId"),
                    entry(13, 2, "0", "InvalidDimension"), entry(13, 6, "-1", "InvalidReadyFd"),
                    entry(13, 6, "", "InvalidCharacter"),
                    err({"--keeper-exec", "--dir", "rel"}, 1, "error: BadKeeperArgs\n")));

INSTANTIATE_TEST_SUITE_P(
    Commands, Command,
    testing::Values(
        out({"list"}, 0, ""),
        // A missing directory lists nothing and is not created.
        out({"list", "--json", "--dir", "/nonexistent/tvt"}, 0,
            "{\"protocol_version\":1,\"sessions\":[]}\n"),
        err({"inspect"}, 2, "usage: tovel-ptyd inspect <id> [--json]\n"),
        err({"inspect", kUpperId}, 2, "inspect:" + kBadId),
        err({"inspect", kId}, 1, "session " + kId + ": not running\n"),
        out({"inspect", kId, "--json"}, 1,
            "{\"protocol_version\":1,\"error\":{\"code\":\"session_not_found\",\"session_id\":\"" +
                kId + "\"}}\n"),
        invalid({"inspect", kId, "--json", "--json"}, "DuplicateOption"),
        err({"kill"}, 2, "usage: tovel-ptyd kill <id> [--force]\n"),
        err({"kill", kUpperId}, 2, "kill:" + kBadId),
        invalid({"kill", kId, "--force", "--force"}, "DuplicateOption"),
        err({"kill", kId}, 1, "session " + kId + ": not running\n"),
        err({"attach", kId}, 1, "error: FileNotFound\n"),
        err({"ensure"}, 2,
            "usage: tovel-ptyd ensure <id> [spawn options] [portable metadata options]\n"),
        err({"ensure", "xyz"}, 2, "ensure: id must be 32 lowercase-hex chars (got 3 bytes)\n"),
        invalid({"ensure", kId, "--workspace-id", kWorkspace}, "InvalidOptionValue"),
        err({"new", "--cwd", "/nonexistent/tvt"}, 1, "keeper startup failed: FileNotFound\n"),
        out({"preflight"}, 0, "ready\n"), out({"preflight", "--executable", "sh"}, 0, "ready\n"),
        out({"preflight", "--json"}, 0, kPreflightHead + "\"ready\":true,\"sessions\":[]}\n"),
        out({"preflight", "--json", "--cwd", "/dev/null"}, 0,
            kPreflightHead + "\"ready\":false,\"error\":{\"code\":\"missing_directory\","
                             "\"path\":\"/dev/null\",\"message\":\"The remote directory does "
                             "not exist.\"}}\n"),
        err({"preflight", "--cwd", "/dev/null"}, 1,
            "preflight: working directory is unavailable: /dev/null\n"),
        out({"preflight", "--executable", "no-such-tool-here", "--json"}, 0,
            kPreflightHead + "\"ready\":false,\"error\":{\"code\":\"executable_missing\","
                             "\"executable\":\"no-such-tool-here\",\"message\":\"The requested "
                             "tool is not executable on the remote PATH.\"}}\n"),
        err({"preflight", "--executable", "no-such-tool-here"}, 1,
            "preflight: executable is unavailable: no-such-tool-here\n"),
        invalid({"preflight", "--verbose"}, "UnknownOption"),
        invalid({"preflight", "--cwd", "/", "--cwd", "/"}, "DuplicateOption"),
        // NO_COLOR, even empty, wins over CLICOLOR_FORCE.
        Case{{"attach", kId},
             1,
             "",
             "error: FileNotFound\n",
             {{"NO_COLOR", ""}, {"CLICOLOR_FORCE", "1"}}}));

} // namespace
} // namespace tovel::test
