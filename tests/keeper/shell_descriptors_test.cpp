// The shell gets the session's terminal on 0, 1 and 2 and no other
// descriptor of the keeper or of whoever started it.
#include "keeper_fixture.hpp"

#include <algorithm>
#include <filesystem>

namespace tovel::test {
namespace {

class ShellDescriptors : public KeeperFixture {};

TEST_F(ShellDescriptors, ShellInheritsExactlyTheTerminalOnZeroOneAndTwo) {
    // The command replaces the shell, so the session leader ends up holding
    // exactly what it inherited; once it sleeps its exec is complete.
    std::string id = startSession({"--cmd", "exec sleep 1000"});
    ASSERT_FALSE(id.empty());
    auto shell = metadataNumber(id, "shell_pid");
    ASSERT_TRUE(shell);
    std::filesystem::path proc = "/proc/" + std::to_string(*shell);
    ASSERT_TRUE(
        waitUntil([&] { return readFile(proc / "stat").find("(sleep) S") != std::string::npos; }));
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(proc / "fd"))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"0", "1", "2"}));
    for (const auto& name : names)
        EXPECT_EQ(std::filesystem::read_symlink(proc / "fd" / name).string().rfind("/dev/pts/", 0),
                  0u);
}

} // namespace
} // namespace tovel::test
