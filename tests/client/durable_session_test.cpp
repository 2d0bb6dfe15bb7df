// Sessions that outlive their files: a wiped runtime directory, the abstract
// address, its owner-only admission, concurrent ensure, kill of shells that
// ignore SIGTERM, and keepers that do not log bare liveness probes.
#include "client/protocol/session_address.hpp"
#include "platform/socket.hpp"
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

// Pids of the keeper processes of `id`, from their command lines.
std::vector<int> keeperPids(const std::string& id) {
    std::vector<int> pids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        if (readFile(entry.path() / "cmdline").find("--keeper-exec" + std::string(1, '\0') + id) !=
            std::string::npos)
            pids.push_back(std::stoi(name));
    }
    return pids;
}

// Binds `name` in the abstract namespace without listening, for the
// process's life.
bool bindAbstractOnly(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return ::bind(::socket(AF_UNIX, SOCK_STREAM, 0), reinterpret_cast<sockaddr*>(&address),
                  length) == 0;
}

std::size_t count(const std::string& text, const std::string& needle) {
    std::size_t n = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

// An attach client on a terminal that has seen `marker` (typing waits for
// raw mode, or the cooked line would swallow it).
bool attachSees(const std::vector<std::string>& args, const RunOptions& options,
                const std::string& typed, const std::string& marker) {
    PtyProcess attached(args, options);
    bool raw = waitUntil(
        [&] {
            termios mode{};
            return ::tcgetattr(attached.master(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
        },
        20s);
    attached.write(typed);
    return raw && attached.readUntil(marker, 20s);
}

// The runtime directory lives under XDG_RUNTIME_DIR, as on a desktop host
// whose logout removes it.
class DurableSession : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directory(xdg_); }
    void TearDown() override {
        for (const std::string& id : ids_) {
            for (int pid : keeperPids(id))
                ::kill(pid, SIGKILL);
        }
        for (int shell : shells_)
            ::kill(-shell, SIGKILL);
    }
    RunOptions options(const std::string& shell = "/bin/sh") const {
        RunOptions run;
        run.env["TOVEL_PTYD_DIR"] = std::nullopt;
        run.env["XDG_RUNTIME_DIR"] = xdg_;
        run.env["SHELL"] = shell;
        run.env["HOME"] = base_.path();
        run.env["ENV"] = std::nullopt;
        run.env["NO_COLOR"] = "1";
        return run;
    }
    std::string file(const std::string& id, const std::string& suffix) const {
        return xdg_ + "/tovel-ptyd/" + id + suffix;
    }
    std::string shellPidOf(const std::string& id) const {
        std::string meta = readFile(file(id, ".meta"));
        auto at = meta.find("shell_pid=");
        return at == std::string::npos ? "" : meta.substr(at + 10, meta.find('\n', at) - at - 10);
    }
    std::string startSession(const std::string& shell, const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"new"};
        args.insert(args.end(), extra.begin(), extra.end());
        std::string id = runBinary(args, options(shell)).out.substr(0, 32);
        ids_.push_back(id);
        if (!shellPidOf(id).empty())
            shells_.push_back(std::stoi(shellPidOf(id)));
        return id;
    }
    void wipe() const { std::filesystem::remove_all(xdg_); }

    TempDir base_;
    std::string xdg_ = base_.path() + "/run";
    std::vector<std::string> ids_;
    std::vector<int> shells_;
};

TEST_F(DurableSession, WipedRuntimeDirectoryLeavesTheSessionReachable) {
    const std::string id = "00112233445566778899aabbccddeeff";
    ids_.push_back(id);
    ASSERT_EQ(runBinary({"ensure", id, "--cmd", "echo mark-$((6*7)); sleep 600"}, options()).status,
              0);
    std::string shellPid = shellPidOf(id);
    shells_.push_back(std::stoi(shellPid));

    wipe(); // left removed: only the abstract name remains
    EXPECT_TRUE(attachSees({"attach", id}, options(), "", "mark-42"));
    std::string listed = runBinary({"list", "--json"}, options()).out;
    EXPECT_EQ(count(listed, "\"session_id\":\"" + id + "\""), 1u) << listed;
    EXPECT_NE(listed.find("\"metadata_ok\":false"), std::string::npos) << listed;

    std::filesystem::create_directory(xdg_); // logged in again
    EXPECT_EQ(runBinary({"ensure", id, "--cmd", "sleep 600"}, options()).status, 0);
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(file(id, ".sock")); }, 20s));
    EXPECT_EQ(keeperPids(id).size(), 1u);
    ASSERT_TRUE(waitUntil([&] { return shellPidOf(id) == shellPid; }, 20s));
    EXPECT_EQ(count(runBinary({"list"}, options()).out, id), 1u);

    wipe();
    EXPECT_EQ(runBinary({"kill", id, "--force"}, options()).status, 0);
    EXPECT_TRUE(waitUntil([&] { return keeperPids(id).empty(); }, 20s));
}

TEST_F(DurableSession, ConcurrentEnsureMakesOneKeeper) {
    for (int round = 0; round < 5; ++round) {
        std::string id = "abcdef00000000000000000000000" + std::to_string(100 + round);
        ids_.push_back(id);
        RunResult first, second;
        auto ensure = [&](RunResult& out) {
            out = runBinary({"ensure", id, "--cmd", "sleep 600"}, options());
        };
        std::thread other(ensure, std::ref(second));
        ensure(first);
        other.join();
        for (const RunResult* caller : {&first, &second})
            EXPECT_EQ(caller->status, 0) << caller->err; // both attached
        // A keeper that lost the race may still be on its way out.
        EXPECT_TRUE(waitUntil([&] { return keeperPids(id).size() == 1; })) << "round " << round;
        if (!shellPidOf(id).empty())
            shells_.push_back(std::stoi(shellPidOf(id)));
    }
}

struct ShellCase {
    const char* name;
    std::string shell;
    std::vector<std::string> extra;
};

class GracefulKill : public DurableSession, public ::testing::WithParamInterface<ShellCase> {};

TEST_P(GracefulKill, EndsShellsThatIgnoreTerm) {
    if (::access(GetParam().shell.c_str(), X_OK) != 0)
        GTEST_SKIP() << GetParam().shell << " is not installed";
    std::string id = startSession(GetParam().shell, GetParam().extra);
    ASSERT_EQ(keeperPids(id).size(), 1u);
    if (GetParam().extra.empty()) {
        // Interactive shells ignore SIGTERM once their start-up is done.
        ASSERT_TRUE(attachSees({"attach", id}, options(GetParam().shell), "echo ready-$((6*7))\r",
                               "ready-42"));
    }
    EXPECT_EQ(runBinary({"kill", id}, options()).status, 0);
    EXPECT_TRUE(waitUntil([&] { return keeperPids(id).empty(); }, 30s));
}

INSTANTIATE_TEST_SUITE_P(
    Shells, GracefulKill,
    ::testing::Values(
        ShellCase{"Bash", "/bin/bash", {}}, ShellCase{"Dash", "/bin/dash", {}},
        ShellCase{"TermTrap", "/bin/sh", {"--cmd", "trap '' TERM; while :; do sleep 1; done"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DurableSession, AnotherUserCannotUseTheAbstractName) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to act as another user";
    std::string id = startSession("/bin/sh", {"--cmd", "sleep 600"});
    std::string table = readFile("/proc/net/unix");
    auto end = table.find("/" + id + "\n");
    ASSERT_NE(end, std::string::npos);
    auto at = table.rfind('@', end);
    std::string name = table.substr(at + 1, end + 33 - at - 1);

    pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            ::_exit(3);
        for (int attempt = 0; attempt < 20; ++attempt) {
            auto fd = connectAbstractName(name);
            WireConnection stranger(fd ? fd->release() : -1);
            if (!stranger.connected())
                continue; // refused outright is just as good
            stranger.sendFrame(8, std::string(1, '\1'));
            if (!stranger.closedWithin(5s))
                ::_exit(1);
        }
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    // Said once, however often they try.
    EXPECT_EQ(count(readFile(file(id, ".log")), "peer uid=65534"), 1u);
    EXPECT_EQ(count(runBinary({"list"}, options()).out, id), 1u);

    // Nor can another user pose as a keeper by binding a session's name
    // first, listening or not, or keep the owner from starting it.
    // The third never accepts, and one waiting connection fills its backlog.
    for (char squat : {'e', 'f', 'a'}) {
        const std::string squatted(32, squat);
        std::string squattedName = name.substr(0, name.size() - 32) + squatted;
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        pid_t squatter = ::fork();
        if (squatter == 0) {
            if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
                ::_exit(3);
            Result<UniqueFd> listener = fail(Error::Unexpected);
            Result<UniqueFd> waiting = fail(Error::Unexpected);
            if (squat != 'f')
                listener = sys::listenAbstract(squattedName, squat == 'a' ? 0 : 8);
            if (squat == 'a')
                waiting = sys::connectAbstract(squattedName);
            bool bound = squat == 'f' ? bindAbstractOnly(squattedName)
                                      : listener && (squat != 'a' || waiting);
            (void)!::write(ready[1], bound ? "1" : "0", 1);
            ::pause();
            ::_exit(0);
        }
        char bound = 0;
        ASSERT_EQ(::read(ready[0], &bound, 1), 1);
        EXPECT_EQ(bound, '1');
        EXPECT_EQ(runBinary({"list", "--json"}, options()).out.find(squatted), std::string::npos);
        RunResult killed = runBinary({"kill", squatted}, options());
        EXPECT_EQ(killed.err, "session " + squatted + ": not running\n");
        ids_.push_back(squatted);
        EXPECT_TRUE(attachSees({"ensure", squatted, "--cmd", "echo up-$((6*7)); sleep 600"},
                               options(), "", "up-42"));
        EXPECT_NE(readFile(file(squatted, ".log")).find("abstract name held by another user"),
                  std::string::npos);
        ::kill(squatter, SIGKILL);
        ::waitpid(squatter, nullptr, 0);
        ::close(ready[0]);
        ::close(ready[1]);
    }
}

TEST_F(DurableSession, BareProbesLeaveNoLogLines) {
    std::string id = startSession("/bin/sh", {"--cmd", "sleep 600"});
    std::size_t logSize = readFile(file(id, ".log")).size();
    for (int probe = 0; probe < 10000; ++probe)
        WireConnection::connectTo(file(id, ".sock"));
    // A length field judged bad on its own four bytes: the keeper hangs up.
    for (std::string length : {std::string(4, '\0'), std::string("\0\0\x40\x06", 4)}) {
        WireConnection bad = WireConnection::connectTo(file(id, ".sock"));
        bad.sendFrame(8, std::string(1, '\1')); // greeted: no handshake deadline
        bad.send(length);
        EXPECT_TRUE(bad.closedWithin(5s));
    }
    // A greeted client's drop is logged, and it comes after every probe.
    WireConnection greeted = WireConnection::connectTo(file(id, ".sock"));
    greeted.sendFrame(8, std::string(1, '\1'));
    greeted.close();
    ASSERT_TRUE(waitUntil(
        [&] { return readFile(file(id, ".log")).find("client dropped") != std::string::npos; }));
    std::string log = readFile(file(id, ".log"));
    EXPECT_EQ(count(log, "client dropped"), 1u);
    EXPECT_LT(log.size(), logSize + 200) << log;
}

} // namespace
} // namespace tovel::test
