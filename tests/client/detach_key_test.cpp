// The detach key on a real terminal against a fake keeper: pressed alone it
// ends the attach with status 0 and is not sent; inside a burst, or with no
// key configured, the byte is forwarded; a bad value is refused up front.
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

namespace tovel::test {
namespace {

constexpr std::uint8_t kHello = 8, kAttach = 1, kInput = 2, kOutput = 4, kExit = 5;
const std::string kId = "00112233445566778899aabbccddeeff";

struct DetachCase {
    const char* name;
    std::optional<std::string> key; // TOVEL_PTYD_DETACH_KEY; nullopt unsets it
    std::string typed;              // written to the terminal in one piece
    bool detaches;
};

class DetachKey : public ::testing::TestWithParam<DetachCase> {};

TEST_P(DetachKey, EndsTheAttachOnlyWhenPressedAlone) {
    const DetachCase& c = GetParam();
    TempDir dir;
    FakeKeeper keeper(dir.path() + "/" + kId + ".sock");
    RunOptions options;
    options.env["TOVEL_PTYD_DIR"] = dir.path();
    options.env["TOVEL_PTYD_DETACH_KEY"] = c.key;
    PtyProcess attach({"attach", kId}, options);
    WireConnection client = keeper.accept();
    ASSERT_EQ(client.readFrame()->type, kHello);
    ASSERT_EQ(client.readFrame()->type, kAttach);
    // Output shows the client is in its loop, with the terminal raw.
    client.sendFrame(kOutput, "ready");
    ASSERT_TRUE(attach.readUntil("ready"));
    attach.write(c.typed);
    if (c.detaches) {
        EXPECT_EQ(attach.waitExit(), 0);
        EXPECT_TRUE(client.closedWithin(std::chrono::seconds(5)));
        return;
    }
    auto input = client.readFrame();
    ASSERT_TRUE(input);
    EXPECT_EQ(input->type, kInput);
    EXPECT_EQ(input->payload, c.typed);
    client.sendFrame(kExit, u32Payload(4));
    EXPECT_EQ(attach.waitExit(), 4);
}

INSTANTIATE_TEST_SUITE_P(Cases, DetachKey,
                         ::testing::Values(DetachCase{"BackslashAlone", "^\\", "\x1c", true},
                                           DetachCase{"BracketAlone", "^]", "\x1d", true},
                                           DetachCase{"LowerCaseLetter", "^a", "\x01", true},
                                           DetachCase{"InsideAPaste", "^]", "ls\x1d-l\r", false},
                                           DetachCase{"Unset", std::nullopt, "\x1d", false},
                                           DetachCase{"Empty", "", "\x1d", false}),
                         [](const auto& info) { return info.param.name; });

TEST(DetachKeyValue, InvalidValueIsRefusedWithStatus2) {
    TempDir dir;
    RunOptions options;
    options.env["TOVEL_PTYD_DIR"] = dir.path();
    for (std::string value : {"]", "^", "^]x", "^1", "\x1d", "^~"}) {
        for (std::vector<std::string> command :
             {std::vector<std::string>{"attach", kId}, {"connect"}, {"ensure", kId}}) {
            options.env["TOVEL_PTYD_DETACH_KEY"] = value;
            RunResult run = runBinary(command, options);
            EXPECT_EQ(run.status, 2) << value << " " << command[0];
            EXPECT_NE(run.err.find("TOVEL_PTYD_DETACH_KEY"), std::string::npos) << run.err;
        }
    }
    // No keeper was started for nothing.
    EXPECT_EQ(runBinary({"list"}, options).out, "");
}

} // namespace
} // namespace tovel::test
