// The keeper's building blocks: the replay ring's wrap-around and the shell
// child's plan.
#include "keeper/replay_ring.hpp"
#include "keeper/shell_plan.hpp"

#include <gtest/gtest.h>

namespace tovel {
namespace {

// Writes of various sizes: the ring always holds exactly the newest bytes.
TEST(ReplayRing, HoldsExactlyTheNewestMebibyte) {
    for (std::size_t chunk : {1u, 4093u, 65536u, 1048575u, 1048576u, 3000000u}) {
        ReplayRing ring;
        std::string all;
        for (std::size_t i = 0; all.size() < (chunk == 1 ? 1100000u : 2500000u); ++i) {
            std::string piece(chunk, '\0');
            for (std::size_t at = 0; at < chunk; ++at)
                piece[at] = static_cast<char>('a' + (at * 7 + i) % 26);
            ring.append(piece);
            all += piece;
        }
        auto [older, newer] = ring.pieces();
        EXPECT_EQ(ring.size(), ReplayRing::kCapacity) << chunk;
        EXPECT_EQ(std::string(older) + std::string(newer), all.substr(all.size() - 1048576))
            << chunk;
    }
    auto [older, newer] = ReplayRing().pieces();
    EXPECT_EQ(older.size() + newer.size(), 0u);
}

// The login shell's argument zero, or the error that stops the start.
std::string planned(std::optional<std::string_view> shell, std::string_view cmd = "") {
    ShellPlan plan = planShell(cmd, "", shell, "/usr/bin:/bin");
    if (auto error = plan.shellError ? plan.shellError : plan.argvError)
        return std::string(errorName(*error));
    return plan.arguments.size() == 1 ? plan.arguments[0] : "a command vector";
}

TEST(ShellPlan, LoginNameIsDashBasenameAndLimitsHold) {
    EXPECT_EQ(planned(std::nullopt), "-bash");
    EXPECT_EQ(planned("/usr/bin/zsh/"), "-zsh");
    EXPECT_EQ(planned(""), "-"); // an empty SHELL is used as it is
    EXPECT_EQ(planned("///"), "-");
    EXPECT_EQ(planned("/bin/sh", "htop"), "a command vector");
    EXPECT_EQ(planned("/bin/sh", std::string(65536, 'x')), "CommandTooLong");
    EXPECT_EQ(planned(std::string(4096, 'a')), "ShellPathTooLong");
}

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
