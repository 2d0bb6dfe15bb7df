// `doctor` against prepared files below its diagnostic root (logind, linger,
// terminfo) and runtime directories, in words and as JSON, with its status.
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <unistd.h>

namespace tovel::test {
namespace {

struct DoctorCase {
    const char* name;
    std::string files;    // "path>content" pairs below the root, separated by "|"
    std::string env;      // "NAME=value" pairs separated by "|"; "@" is the root, "-" unsets
    std::string expected; // "level check code" of one finding
    std::string fix;
    int status;
};

class Doctor : public ::testing::TestWithParam<DoctorCase> {};

TEST_P(Doctor, ReportsTheFindingInWordsAndJson) {
    const DoctorCase& c = GetParam();
    TempDir root;
    const std::string base = "TOVEL_PTYD_DOCTOR_ROOT=@|USER=tester|HOME=@|TERM=xterm-test|"
                             "TOVEL_PTYD_DIR=@/rt|TERMINFO=-|TERMINFO_DIRS=-|";
    root.writeFile("usr/share/terminfo/x/xterm-test", "x");
    std::istringstream files(c.files), env(base + c.env), expected(c.expected);
    for (std::string file; std::getline(files, file, '|');)
        root.writeFile(file.substr(0, file.find('>')), file.substr(file.find('>') + 1));
    RunOptions options;
    for (std::string pair; std::getline(env, pair, '|');) {
        if (auto at = pair.find('@'); at != std::string::npos)
            pair.replace(at, 1, root.path());
        std::string value = pair.substr(pair.find('=') + 1);
        options.env[pair.substr(0, pair.find('='))] =
            value == "-" ? std::nullopt : std::optional(value);
    }
    std::string level, check, code;
    expected >> level >> check >> code;
    RunResult words = runBinary({"doctor"}, options);
    EXPECT_EQ(words.status, c.status) << words.out;
    EXPECT_TRUE(("\n" + words.out).find("\n" + level + " " + check + ": ") != std::string::npos &&
                (c.fix.empty() || words.out.find("; fix: " + c.fix) != std::string::npos));
    RunResult json = runBinary({"doctor", "--json"}, options);
    EXPECT_EQ(json.status, c.status);
    EXPECT_TRUE(json.out.starts_with("{\"protocol_version\":1,") &&
                json.out.find("\"code\":\"" + code + "\"") != std::string::npos)
        << json.out;
}

const std::string kKill = "etc/systemd/logind.conf>[Login]\nKillUserProcesses=yes\n";
const std::string kPerUser =
    "TOVEL_PTYD_DIR=-|XDG_RUNTIME_DIR=/run/user/" + std::to_string(::getuid());

INSTANTIATE_TEST_SUITE_P(
    Cases, Doctor,
    ::testing::Values(
        DoctorCase{"NothingConfigured", "", "", "ok logind logind_keeps_processes", "", 0},
        DoctorCase{"KillUserProcesses", kKill, "", "problem logind logind_kills_at_logout",
                   "put KillExcludeUsers=tester", 1},
        // Drop-ins in name order, /etc shadowing /usr/lib; an empty list empties it.
        DoctorCase{"DropInsExcludeTheUser",
                   kKill +
                       "|run/systemd/logind.conf.d/10-a.conf>[Login]\nKillExcludeUsers="
                       "|etc/systemd/logind.conf.d/20-b.conf> [Login]\n KillExcludeUsers = tester"
                       "|usr/lib/systemd/logind.conf.d/20-b.conf>[Login]\nKillExcludeUsers=",
                   "", "ok logind logind_keeps_processes", "", 0},
        DoctorCase{"TerminfoMissing", "", "TERM=no-such-term", "warning terminfo terminfo_missing",
                   "copy the entry", 0},
        DoctorCase{"TerminfoInOwnDirectory", "own/6e/no-such-term>",
                   "TERM=no-such-term|TERMINFO=@/own", "ok terminfo terminfo_found", "", 0},
        DoctorCase{"PerUserRuntimeDir", "", kPerUser,
                   "warning runtime_dir runtime_dir_removed_at_logout",
                   "loginctl enable-linger tester\n", 0},
        DoctorCase{"SocketPathTooLong", "", "TOVEL_PTYD_DIR=/tmp/" + std::string(70, 'd'),
                   "problem socket_path socket_path_too_long", "set TOVEL_PTYD_DIR", 1}),
    [](const auto& info) { return info.param.name; });

} // namespace
} // namespace tovel::test
