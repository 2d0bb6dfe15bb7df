// The front end as a user meets it: exact bytes and exit statuses of usage,
// version, unknown words, the --dir pre-scan, attach's checks and list's and
// new's argument errors.
#include "cli/commands/front_end.hpp"
#include "cli/commands/usage.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <random>

namespace tovel {
namespace {

const std::string kUsage(kUsageText);
const std::string kId(32, 'a');

struct FrontEndCase {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
};

void PrintTo(const FrontEndCase& c, std::ostream* os) {
    for (const auto& arg : c.args)
        *os << "'" << arg << "' ";
}

class FrontEnd : public testing::TestWithParam<FrontEndCase> {
  protected:
    test::TempDir dir;
};

TEST_P(FrontEnd, ExactOutputAndStatus) {
    const FrontEndCase& c = GetParam();
    test::RunOptions options;
    options.env["TOVEL_PTYD_DIR"] = dir.path();
    test::RunResult run = test::runBinary(c.args, options);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, c.out);
    EXPECT_EQ(run.err, c.err);
}

std::string invalid(const std::string& command, const std::string& error) {
    return command + ": invalid arguments (" + error + ")\n";
}

INSTANTIATE_TEST_SUITE_P(
    Table, FrontEnd,
    testing::Values(
        FrontEndCase{{}, 2, kUsage, ""}, FrontEndCase{{"--help"}, 0, kUsage, ""},
        FrontEndCase{{"-h", "extra"}, 0, kUsage, ""},
        FrontEndCase{{"--version"}, 0, "tovel-ptyd v0.2.8\n", ""},
        FrontEndCase{{"-v"}, 0, "tovel-ptyd v0.2.8\n", ""},
        FrontEndCase{{"--version", "--dir", "/x"}, 0, "tovel-ptyd v0.2.8\n", ""},
        FrontEndCase{{"--version", "--dir"}, 2, "", invalid("--version", "MissingOptionValue")},
        FrontEndCase{{"frob"}, 2, kUsage, "unknown subcommand: frob\n"},
        FrontEndCase{{"NEW"}, 2, kUsage, "unknown subcommand: NEW\n"},
        FrontEndCase{{""}, 2, kUsage, "unknown subcommand: \n"},
        FrontEndCase{{"frob", "--cmd"}, 2, "", invalid("frob", "MissingOptionValue")},
        FrontEndCase{
            {"frob", "--dir", "/a", "--dir", "/b"}, 2, "", invalid("frob", "DuplicateOption")},
        FrontEndCase{{"list", "--dir", "x"}, 2, "", invalid("list", "InvalidDirectory")},
        FrontEndCase{{"list", "--dir", ""}, 2, "", invalid("list", "InvalidDirectory")},
        FrontEndCase{{"list", "--json", "--json"}, 2, "", invalid("list", "DuplicateOption")},
        FrontEndCase{{"list", "--dir", "/a", "--json", "--dir", "/b"},
                     2,
                     "",
                     invalid("list", "DuplicateOption")},
        FrontEndCase{{"list", "--all"}, 2, "", invalid("list", "UnknownOption")},
        FrontEndCase{{"attach"}, 2, "", "usage: tovel-ptyd attach <id> [--dir PATH]\n"},
        FrontEndCase{
            {"attach", std::string(32, 'A')}, 2, "", "attach: id must be 32 lowercase-hex chars\n"},
        FrontEndCase{
            {"attach", std::string(31, 'a')}, 2, "", "attach: id must be 32 lowercase-hex chars\n"},
        FrontEndCase{{"attach", std::string(33, 'a'), "--json"},
                     2,
                     "",
                     "attach: id must be 32 lowercase-hex chars\n"},
        FrontEndCase{{"attach", kId, "--json"}, 2, "", invalid("attach", "UnknownOption")},
        FrontEndCase{{"attach", kId, "--x", "/a"}, 2, "", invalid("attach", "UnknownOption")},
        FrontEndCase{
            {"attach", kId, "--dir", "/a", "x"}, 2, "", invalid("attach", "UnknownOption")},
        FrontEndCase{{"attach", kId, "--dir", "rel"}, 2, "", invalid("attach", "InvalidDirectory")},
        FrontEndCase{{"new", "--cols", "--dir", "/x"}, 2, "", invalid("new", "InvalidOptionValue")},
        FrontEndCase{{"new", "--cols", "0"}, 2, "", invalid("new", "InvalidOptionValue")},
        FrontEndCase{{"new", "--json"}, 2, "", invalid("new", "UnknownOption")},
        FrontEndCase{
            {"new", "--rows", "5", "--rows", "6"}, 2, "", invalid("new", "DuplicateOption")},
        FrontEndCase{{"new", "--agent-kind", "k"}, 2, "", invalid("new", "InvalidOptionValue")},
        FrontEndCase{{"new", "--cwd"}, 2, "", invalid("new", "MissingOptionValue")}));

// A bounded randomized run over argument vectors built from the words the
// front end knows: every run ends with a defined status, never a signal, and
// an "invalid arguments" report is the only thing on the terminal.
TEST(FrontEndFuzz, AnyArgumentVectorEndsCleanly) {
    const std::vector<std::string> firstWords{"list", "attach",    "inspect", "kill",
                                              "frob", "--version", "-h",      "--keeper-exec"};
    const std::vector<std::string> words{"--dir",
                                         "/",
                                         "/tmp/x",
                                         "rel",
                                         "",
                                         "--json",
                                         "--force",
                                         "--cols",
                                         "--rows",
                                         "0",
                                         "+1",
                                         "--cmd",
                                         "--cwd",
                                         kId,
                                         std::string(32, 'F'),
                                         "--lease-generation",
                                         "-",
                                         "--",
                                         "\xff"};
    std::mt19937 random(12345);
    test::TempDir dir;
    test::RunOptions options;
    options.env["TOVEL_PTYD_DIR"] = dir.path();
    options.deadline = std::chrono::milliseconds(5000);
    for (int round = 0; round < 60; ++round) {
        std::vector<std::string> args{firstWords[random() % firstWords.size()]};
        int count = static_cast<int>(random() % 5);
        for (int i = 0; i < count; ++i)
            args.push_back(words[random() % words.size()]);
        test::RunResult run = test::runBinary(args, options);
        EXPECT_GE(run.status, 0);
        EXPECT_LE(run.status, 3) << args[0] << " (" << count << " more)";
        if (run.err.find("invalid arguments") != std::string::npos) {
            EXPECT_EQ(run.status, 2);
            EXPECT_EQ(run.out, "");
            EXPECT_EQ(run.err.find('\n'), run.err.size() - 1);
        }
    }
}

} // namespace
} // namespace tovel
