// The keeper's building blocks: the replay ring's wrap-around, the bounded
// queues, the exit-status encoding and the shell child's plan.
#include "keeper/byte_queue.hpp"
#include "keeper/keeper_loop.hpp"
#include "keeper/replay_ring.hpp"
#include "keeper/shell_plan.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>

namespace tovel {
namespace {

std::string ringContent(const ReplayRing& ring) {
    auto [older, newer] = ring.pieces();
    return std::string(older) + std::string(newer);
}

std::string pattern(std::size_t size, std::size_t seed) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
    return bytes;
}

// Writes of various sizes: the ring always holds exactly the newest bytes.
TEST(ReplayRing, HoldsExactlyTheNewestMebibyte) {
    for (std::size_t chunk : {1u, 4093u, 65536u, 1048575u, 1048576u, 3000000u}) {
        ReplayRing ring;
        std::string all;
        for (std::size_t i = 0; all.size() < 2500000; ++i) {
            std::string piece = pattern(chunk, i);
            ring.append(piece);
            all += piece;
            if (chunk == 1 && all.size() > 1100000)
                break;
        }
        std::size_t kept = std::min(all.size(), ReplayRing::kCapacity);
        EXPECT_EQ(ring.size(), kept) << chunk;
        EXPECT_EQ(ringContent(ring), all.substr(all.size() - kept)) << chunk;
    }
    ReplayRing empty;
    EXPECT_EQ(ringContent(empty), "");
}

TEST(ByteQueue, RefusesWholeUnitsBeyondItsBound) {
    ByteQueue queue(10);
    EXPECT_TRUE(queue.append("12345", "678", Error::OutputBackpressure));
    EXPECT_EQ(queue.append("abc", "", Error::OutputBackpressure).error(),
              Error::OutputBackpressure);
    EXPECT_EQ(queue.front(), "12345678");
    queue.consume(6);
    EXPECT_TRUE(queue.append("abcdefgh", "", Error::InputBackpressure));
    EXPECT_EQ(queue.front(), "78abcdefgh");
    queue.consume(10);
    EXPECT_TRUE(queue.empty());
}

TEST(ExitStatus, NormalExitsPassSignalDeathsSetHighBits) {
    EXPECT_EQ(encodeExitStatus(7 << 8), 7u);
    EXPECT_EQ(encodeExitStatus(0), 0u);
    EXPECT_EQ(encodeExitStatus(SIGKILL), 0xFFFFFF89u);
    EXPECT_EQ(encodeExitStatus(SIGTERM | 0x80), 0xFFFFFF8Fu); // with a core dump
}

std::string dashed(const std::string& name) {
    std::string login = "-";
    login.append(name);
    return login;
}

struct PlanCase {
    const char* name;
    std::optional<std::string> shell;
    std::string cmd;
    std::vector<std::string> argv;
    std::optional<Error> error;
};

class ShellPlanVector : public ::testing::TestWithParam<PlanCase> {};

TEST_P(ShellPlanVector, BuildsTheArgumentVector) {
    const PlanCase& c = GetParam();
    std::optional<std::string_view> shell;
    if (c.shell)
        shell = *c.shell;
    ShellPlan plan = planShell(c.cmd, "", shell, "/usr/bin:/bin");
    EXPECT_EQ(plan.arguments, c.argv);
    EXPECT_EQ(plan.argv.size(), plan.arguments.size() + 1);
    EXPECT_EQ(plan.argv.back(), nullptr);
    EXPECT_EQ(plan.shellError ? plan.shellError : plan.argvError, c.error);
}

INSTANTIATE_TEST_SUITE_P(
    Keeper, ShellPlanVector,
    ::testing::Values(PlanCase{"NoShellVariable", std::nullopt, "", {"-bash"}, std::nullopt},
                      PlanCase{"TrailingSlash", "/usr/bin/zsh/", "", {"-zsh"}, std::nullopt},
                      PlanCase{"EmptyShellIsKept", "", "", {"-"}, std::nullopt},
                      PlanCase{"AllSlashes", "///", "", {"-"}, std::nullopt},
                      PlanCase{"Command",
                               "/bin/sh",
                               "htop",
                               {"/bin/sh", "-lic", "trap - TERM; exec \"$2\" -c \"$1\"",
                                "tovel-command", "htop", "/bin/sh"},
                               std::nullopt},
                      PlanCase{"CommandTooLong",
                               "/bin/sh",
                               std::string(65536, 'x'),
                               {"/bin/sh", "-lic", "trap - TERM; exec \"$2\" -c \"$1\"",
                                "tovel-command", std::string(65536, 'x'), "/bin/sh"},
                               Error::CommandTooLong},
                      PlanCase{"ShellPathTooLong",
                               std::string(4096, 'a'),
                               "",
                               {dashed(std::string(4096, 'a'))},
                               Error::ShellPathTooLong}),
    [](const auto& info) { return info.param.name; });

TEST(ShellPlan, SearchesPathForBareNamesAndDefaultsWhenUnset) {
    EXPECT_EQ(programCandidates("sh", "/a:/b/"), (std::vector<std::string>{"/a/sh", "/b/sh"}));
    EXPECT_EQ(programCandidates("sh", std::nullopt),
              (std::vector<std::string>{"/usr/local/bin/sh", "/bin/sh", "/usr/bin/sh"}));
    EXPECT_EQ(programCandidates("./x/sh", "/a"), (std::vector<std::string>{"./x/sh"}));
    ShellPlan longCwd = planShell("", std::string(4096, 'd'), "/bin/sh", std::nullopt);
    EXPECT_EQ(longCwd.cwdError, Error::NameTooLong);
}

} // namespace
} // namespace tovel
