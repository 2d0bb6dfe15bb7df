// `cmake --install` into a temporary prefix: every file, and the second name.
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace tovel::test {
namespace {

std::string outputOf(const std::string& command) {
    std::string out(1 << 16, '\0');
    FILE* pipe = ::popen(command.c_str(), "r");
    out.resize(std::fread(out.data(), 1, out.size(), pipe));
    return ::pclose(pipe) == 0 ? out : "failed: " + out;
}

TEST(Install, EveryFileInPlaceAndTheSecondNameAnswersAlike) {
    TempDir prefix;
    outputOf(std::string(TOVEL_CMAKE_COMMAND) + " --install " + TOVEL_BUILD_DIR + " --prefix " +
             prefix.path());
    for (std::string file :
         {"bin/tovel-ptyd", "share/man/man1/tovel-ptyd.1", "share/doc/tovel-ptyd/README.md",
          "share/doc/tovel-ptyd/LICENSE", "share/bash-completion/completions/tovel-shellsess",
          "share/zsh/vendor-completions/_tovel-ptyd",
          "share/fish/vendor_completions.d/tovel-shellsess.fish"})
        EXPECT_EQ(::access((prefix.path() + "/" + file).c_str(), R_OK), 0) << file;
    std::string link = prefix.path() + "/bin/tovel-shellsess";
    EXPECT_EQ(std::filesystem::read_symlink(link), "tovel-ptyd");
    for (std::string option : {"--version", "--help"})
        EXPECT_EQ(outputOf(link + " " + option), runBinary({option}).out);
}

} // namespace
} // namespace tovel::test
