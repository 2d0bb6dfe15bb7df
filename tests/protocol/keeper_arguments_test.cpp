// The keeper's command line reads back as it was written, and hiding its
// secrets leaves only the id and the sizes.
#include "client/protocol/keeper_arguments.hpp"

#include <gtest/gtest.h>

namespace tovel {
namespace {

const std::string kId = "0123456789abcdef0123456789abcdef";
const std::string kUuid = "01234567-89ab-cdef-0123-456789abcdef";

TEST(KeeperArguments, DecodeReadsBackWhatEncodeWrote) {
    const KeeperLaunch cases[] = {
        {kId, SpawnOptions{}, 3},
        {kId, {1, 65535, "echo 'a b'\n", "/tmp/x y", {kUuid, kUuid, 0, "", "", ""}}, 2147483647},
        {kId, {300, 2, "", "", {kUuid, kUuid, UINT64_MAX, kUuid, "agent", "adapter.1"}}, 0},
    };
    for (const KeeperLaunch& original : cases) {
        std::vector<std::string> texts = encodeKeeperArguments("/bin/self", original);
        ASSERT_EQ(texts.size(), 14u);
        EXPECT_EQ(texts[1], "--keeper-exec");
        std::vector<std::string_view> views(texts.begin() + 2, texts.end());
        auto decoded = decodeKeeperArguments(views);
        ASSERT_TRUE(decoded) << errorName(decoded.error());
        EXPECT_EQ(decoded->id, original.id);
        EXPECT_EQ(decoded->options.cols, original.options.cols);
        EXPECT_EQ(decoded->options.rows, original.options.rows);
        EXPECT_EQ(decoded->options.cmd, original.options.cmd);
        EXPECT_EQ(decoded->options.cwd, original.options.cwd);
        EXPECT_EQ(decoded->options.portable, original.options.portable);
        EXPECT_EQ(decoded->readyFd, original.readyFd);

        hideKeeperSecrets(views);
        for (std::size_t i = 5; i < texts.size(); ++i)
            EXPECT_EQ(texts[i].find_first_not_of('\0'), std::string::npos) << i;
        EXPECT_EQ(texts[2], kId);
    }
}

} // namespace
} // namespace tovel
