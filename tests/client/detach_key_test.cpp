// The detach key on a real terminal against a fake keeper: alone it detaches
// (status 0, nothing sent); in a burst or unset it is forwarded; bad: status 2.
#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

namespace tovel::test {
namespace {

constexpr std::uint8_t kHello = 8, kAttach = 1, kInput = 2, kOutput = 4;
const std::string kId = "00112233445566778899aabbccddeeff";

enum class Outcome { Detaches, Forwarded, Refused };

struct DetachCase {
    const char* name;
    std::optional<std::string> key; // TOVEL_PTYD_DETACH_KEY; nullopt unsets it
    std::string typed;              // written to the terminal in one piece
    Outcome outcome;
};

class DetachKey : public ::testing::TestWithParam<DetachCase> {};

TEST_P(DetachKey, EndsTheAttachOnlyWhenPressedAlone) {
    const DetachCase& c = GetParam();
    TempDir dir;
    FakeKeeper keeper(dir.path() + "/" + kId + ".sock");
    RunOptions options;
    options.env = {{"TOVEL_PTYD_DIR", dir.path()}, {"TOVEL_PTYD_DETACH_KEY", c.key}};
    PtyProcess attach({"attach", kId}, options);
    if (c.outcome == Outcome::Refused) {
        EXPECT_EQ(attach.waitExit(), 2);
        EXPECT_NE(attach.output().find("TOVEL_PTYD_DETACH_KEY"), std::string::npos);
        return;
    }
    WireConnection client = keeper.accept();
    ASSERT_TRUE(client.readFrame()->type == kHello && client.readFrame()->type == kAttach);
    // Output shows the client is in its loop, with the terminal raw.
    client.sendFrame(kOutput, "ready");
    ASSERT_TRUE(attach.readUntil("ready"));
    attach.write(c.typed);
    if (c.outcome == Outcome::Detaches) {
        EXPECT_EQ(attach.waitExit(), 0);
        EXPECT_FALSE(client.readFrame()); // nothing sent, then closed
        return;
    }
    auto input = client.readFrame();
    EXPECT_TRUE(input && input->type == kInput && input->payload == c.typed);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DetachKey,
    ::testing::Values(DetachCase{"BackslashAlone", "^\\", "\x1c", Outcome::Detaches},
                      DetachCase{"InsideAPaste", "^]", "ls\x1d-l\r", Outcome::Forwarded},
                      DetachCase{"Unset", std::nullopt, "\x1d", Outcome::Forwarded},
                      DetachCase{"Empty", "", "\x1d", Outcome::Forwarded},
                      DetachCase{"NotCaret", "]", "", Outcome::Refused},
                      DetachCase{"NotAControlKey", "^1", "", Outcome::Refused}),
    [](const auto& info) { return info.param.name; });

} // namespace
} // namespace tovel::test
