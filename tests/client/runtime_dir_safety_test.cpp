// The runtime directory belongs to its user: bad or foreign ones are refused,
// links never followed, ps shows no secret, nothing is left behind.
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kId = "0123456789abcdef0123456789abcdef";

// Every command that needs the runtime directory.
const std::vector<std::vector<std::string>> kCommands = {
    {"list"},         {"list", "--json"},
    {"inspect", kId}, {"inspect", kId, "--json"},
    {"preflight"},    {"new"},
    {"attach", kId},  {"ensure", kId},
    {"connect"},      {"kill", kId}};

class RuntimeDirSafety : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const auto& id : started_)
            runBinary({"kill", id, "--force"}, options());
    }
    RunOptions options() const {
        RunOptions run;
        run.env["TOVEL_PTYD_DIR"] = dir_.path();
        run.env["NO_COLOR"] = "1";
        run.env["SHELL"] = "/bin/sh";
        run.env["HOME"] = dir_.path();
        return run;
    }
    std::string path(const std::string& name) const { return dir_.path() + "/" + name; }
    void start(const std::string& id, std::vector<std::string> args = {},
               const std::string& cmd = "sleep 600") {
        args.insert(args.begin(), {"ensure", id, "--cmd", cmd});
        started_.push_back(id);
        runBinary(args, options());
    }
    std::string metaField(const std::string& id, const std::string& key) const {
        std::istringstream meta(readFile(path(id + ".meta")));
        for (std::string line; std::getline(meta, line);) {
            if (line.rfind(key + "=", 0) == 0)
                return line.substr(key.size() + 1);
        }
        return {};
    }
    TempDir dir_;
    std::vector<std::string> started_;
};

TEST_F(RuntimeDirSafety, UnusableBaseDirectoryIsReportedByEveryCommand) {
    for (const char* variable : {"TOVEL_PTYD_DIR", "XDG_RUNTIME_DIR", "TMPDIR"}) {
        RunOptions run = options();
        for (const char* unset : {"TOVEL_PTYD_DIR", "XDG_RUNTIME_DIR", "TMPDIR"})
            run.env[unset] = std::nullopt;
        run.env[variable] = "";
        for (const auto& command : kCommands) {
            RunResult result = runBinary(command, run);
            EXPECT_EQ(result.status, 1) << variable << " " << command[0];
            EXPECT_EQ(result.err, "error: InvalidBaseDirectory\n") << variable << " " << command[0];
            EXPECT_EQ(result.out, "") << variable << " " << command[0];
        }
    }
}

TEST_F(RuntimeDirSafety, DirectoryOfAnotherUserOrALinkIsRefused) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to give a directory to another user";
    const std::string foreign = path("foreign");
    fs::create_directory(foreign);
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    fs::permissions(foreign, fs::perms::all);
    fs::create_directory_symlink(path("target"), path("link"));
    fs::create_directory(path("target"));
    for (const std::string& dir : {foreign, path("link")}) {
        RunOptions run = options();
        run.env["TOVEL_PTYD_DIR"] = dir;
        for (const auto& command : kCommands) {
            RunResult result = runBinary(command, run);
            EXPECT_EQ(result.status, 1) << dir << " " << command[0];
            EXPECT_EQ(result.err, "error: RuntimeDirNotOwned\n") << dir << " " << command[0];
        }
    }
    EXPECT_TRUE(fs::is_empty(foreign));
    EXPECT_TRUE(fs::is_empty(path("target")));
    EXPECT_EQ(fs::status(foreign).permissions(), fs::perms::all);
}

TEST_F(RuntimeDirSafety, PlantedLinksAreNeverFollowed) {
    const std::string victim = path("victim");
    for (const char* suffix : {".meta", ".meta.tmp", ".log", ".lock"}) {
        std::ofstream(victim) << "precious";
        std::string id = kId.substr(0, 26) + "00000" + std::to_string(started_.size());
        fs::create_symlink(victim, path(id + suffix));
        start(id);
        runBinary({"attach", id}, options());
        runBinary({"kill", id, "--force"}, options());
        EXPECT_EQ(readFile(victim), "precious") << suffix;
    }
}

TEST_F(RuntimeDirSafety, KeeperArgumentsHideCommandDirectoryAndLease) {
    start(kId,
          {"--cwd", dir_.path(), "--workspace-id", "11111111-2222-3333-4444-555555555555",
           "--replica-id", "66666666-7777-8888-9999-000000000000", "--lease-generation", "73519"},
          "sleep 600 # hunter2");
    std::string cmdline = readFile("/proc/" + metaField(kId, "keeper_pid") + "/cmdline");
    EXPECT_NE(cmdline.find(std::string("--keeper-exec\0", 14) + kId +
                           std::string("\0"
                                       "80\0"
                                       "24\0",
                                       7)),
              std::string::npos);
    for (const std::string& secret : {std::string("hunter2"), dir_.path(), std::string("1111"),
                                      std::string("6666"), std::string("73519")})
        EXPECT_EQ(cmdline.find(secret), std::string::npos) << secret;
}

TEST_F(RuntimeDirSafety, ListingsOfAnOddDirectoryStayValidUtf8) {
    // Stray, overlong, surrogate and too-large sequences, then two good ones.
    const std::string odd =
        path("a\xff\xc3(\xed\xa0\x80\xc0\xaf\xf4\x90\x80\x80\xe2\x82\xac\xf0\x9f\x98\x80");
    fs::create_directory(odd);
    start(kId, {"--cwd", odd});
    auto replaced = [](int count) {
        std::string text;
        while (count-- > 0)
            text += "\xef\xbf\xbd";
        return text;
    };
    const std::string shown =
        "\"cwd\":\"" +
        path("a" + replaced(2) + "(" + replaced(9) + "\xe2\x82\xac\xf0\x9f\x98\x80") + "\"";
    EXPECT_NE(runBinary({"list", "--json"}, options()).out.find(shown), std::string::npos);
    EXPECT_NE(runBinary({"inspect", kId, "--json"}, options()).out.find(shown), std::string::npos);
}

TEST_F(RuntimeDirSafety, ReadersNeverSeeAPartialRecord) {
    start(kId);
    PtyProcess client({"attach", kId}, options());
    // Attached once the client has put its terminal into raw mode.
    ASSERT_TRUE(waitUntil([&] {
        termios mode{};
        return ::tcgetattr(client.master(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
    }));
    std::atomic<bool> done{false};
    std::atomic<int> partial{0};
    std::thread reader([&] {
        while (!done) {
            std::string text = readFile(path(kId + ".meta"));
            if (text.empty() || text.back() != '\n' || text.find("cwd_hex=") == std::string::npos)
                ++partial;
        }
    });
    for (int i = 0; i < 300; ++i)
        client.resize(i % 2 ? 100 : 80, 30);
    ASSERT_TRUE(waitUntil([&] { return metaField(kId, "cols") == "100"; }));
    done = true;
    reader.join();
    EXPECT_EQ(partial, 0);
}

TEST_F(RuntimeDirSafety, EndedSessionsLeaveNothingAndTheLogIsCapped) {
    std::ofstream(path(kId + ".log")) << std::string(1 << 20, 'x');
    start(kId);
    EXPECT_GT(fs::file_size(path(kId + ".log.1")), 1u << 20);
    EXPECT_LT(fs::file_size(path(kId + ".log")), 4096u);
    for (int i = 0; i < 3; ++i)
        runBinary({"new", "--cmd", "true"}, options());
    runBinary({"kill", kId, "--force"}, options());
    EXPECT_TRUE(waitUntil([&] { return fs::is_empty(dir_.path()); }, 10s));
}

} // namespace
} // namespace tovel::test
