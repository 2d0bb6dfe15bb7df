// Bulk output leaves the keeper in frames the attach client can take whole,
// every byte in order.
#include "keeper_fixture.hpp"

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kInput = 2, kOutput = 4, kReplayEnd = 11;
// The attach client's receive buffer is 64 KiB, frame header included.
constexpr std::size_t kLargestOutputPayload = 65536 - 5;

class OutputBatch : public KeeperFixture {};

TEST_F(OutputBatch, BulkOutputArrivesWholeInFramesTheClientTakesWhole) {
    std::string id = startSession({"--cmd", "read go; seq 1 300000; echo done-printing; read x"});
    ASSERT_FALSE(id.empty());
    WireConnection client = attachTo(socketPath(id));
    ASSERT_TRUE(collectUntil(client, kReplayEnd).found);
    ASSERT_TRUE(client.sendFrame(kInput, "go\r"));

    std::string expected;
    for (int line = 1; line <= 300000; ++line)
        expected += std::to_string(line) + "\r\n";
    expected += "done-printing\r\n";
    std::string live;
    std::size_t largest = 0;
    while (live.size() < expected.size() + 4) {
        auto frame = client.readFrame(10s);
        ASSERT_TRUE(frame);
        if (frame->type != kOutput)
            continue;
        largest = std::max(largest, frame->payload.size());
        live += frame->payload;
        if (live.ends_with(expected.substr(expected.size() - 20)))
            break;
    }
    // The shell's own echo of "go" comes first.
    ASSERT_TRUE(live.ends_with(expected));
    EXPECT_LE(largest, kLargestOutputPayload);
}

} // namespace
} // namespace tovel::test
