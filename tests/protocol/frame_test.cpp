// The wire format: frame limits and hostile bytes on the blocking helpers,
// the takeover payloads, and the one takeover decision.
#include "client/protocol/frame.hpp"
#include "client/protocol/portable_takeover.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace tovel {
namespace {

struct SocketPair {
    SocketPair() { ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds); }
    ~SocketPair() {
        for (int fd : fds) {
            if (fd >= 0)
                ::close(fd);
        }
    }
    void feed(const std::string& bytes) {
        ASSERT_EQ(::write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void closePeer() {
        ::close(fds[1]);
        fds[1] = -1;
    }
    int fds[2] = {-1, -1};
};

struct ReadCase {
    const char* name;
    std::string bytes;
    std::optional<Error> error;
    std::optional<std::string> payload; // nullopt with no error: no frame
};

class ReadFrame : public ::testing::TestWithParam<ReadCase> {};

TEST_P(ReadFrame, ReadsOrNamesTheFault) {
    SocketPair pair;
    pair.feed(GetParam().bytes);
    pair.closePeer();
    auto frame = read_frame(pair.fds[0]);
    if (GetParam().error) {
        ASSERT_FALSE(frame);
        EXPECT_EQ(frame.error(), *GetParam().error);
        return;
    }
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->has_value(), GetParam().payload.has_value());
    if (GetParam().payload) {
        EXPECT_EQ((*frame)->payload, *GetParam().payload);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Protocol, ReadFrame,
    ::testing::Values(ReadCase{"CleanCloseIsNoFrame", "", std::nullopt, std::nullopt},
                      ReadCase{"EmptyPayload", std::string("\0\0\0\1\7", 5), std::nullopt, ""},
                      ReadCase{"ThreeHeaderBytes", std::string("\0\0\0", 3), Error::UnexpectedEof,
                               std::nullopt},
                      ReadCase{"TruncatedPayload", std::string("\0\0\0\5\4ab", 7),
                               Error::UnexpectedEof, std::nullopt},
                      ReadCase{"LengthZero", std::string("\0\0\0\0\4", 5),
                               Error::InvalidFrameLength, std::nullopt},
                      ReadCase{"LengthAboveLimit", std::string("\0\x40\0\1\4", 5),
                               Error::InvalidFrameLength, std::nullopt},
                      ReadCase{"Output", std::string("\0\0\0\4\4abc", 8), std::nullopt, "abc"}),
    [](const auto& info) { return info.param.name; });

TEST(WriteFrame, LargestPayloadFitsAndOneMoreIsRefusedUnwritten) {
    SocketPair pair;
    int size = 8 << 20;
    ::setsockopt(pair.fds[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    EXPECT_EQ(write_frame(pair.fds[0], FrameType::Output, std::string(0x400000, 'x')).error(),
              Error::FrameTooLarge);
    char probe;
    EXPECT_EQ(::recv(pair.fds[1], &probe, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(encodeFrame(FrameType::Attach, encodeWinsize(80, 24)),
              std::string("\0\0\0\5\1\0\x50\0\x18", 9));
}

TEST(ConnectSession, SocketPathLengthLimit) {
    test::TempDir dir;
    std::string base = dir.path() + "/";
    EXPECT_EQ(connectSocketPath(base + std::string(108 - base.size(), 's')).error(),
              Error::PathTooLong);
    EXPECT_EQ(connectSocketPath(base + std::string(107 - base.size(), 's')).error(),
              Error::FileNotFound);
}

PortableMetadata lease(std::uint64_t generation) {
    PortableMetadata m;
    m.workspaceId = "11111111-2222-3333-4444-555555555555";
    m.replicaId = "aaaaaaaa-2222-3333-4444-555555555555";
    m.leaseGeneration = generation;
    return m;
}

TEST(PortableTakeover, PayloadRoundTripsAndRejectsTruncation) {
    PortableMetadata full = lease(1ULL << 60);
    full.migrationId = "bbbbbbbb-2222-3333-4444-555555555555";
    full.agentKind = "agent.v2";
    full.adapterId = "a_b-c+d";
    auto payload = encodePortableTakeover(full);
    ASSERT_TRUE(payload);
    EXPECT_EQ(payload->size(), 2u + 36 + 36 + 8 + 36 + 9 + 8);
    EXPECT_EQ(decodePortableTakeover(*payload).value(), full);
    for (std::size_t cut = 0; cut < payload->size(); ++cut)
        EXPECT_FALSE(decodePortableTakeover(payload->substr(0, cut))) << cut;
}

struct DecisionCase {
    const char* name;
    PortableMetadata requested;
    std::optional<PortableMetadata> recorded;
    std::optional<RejectionReason> reason;
    std::uint64_t expected;
    std::uint64_t other;
};

class TakeoverDecision : public ::testing::TestWithParam<DecisionCase> {};

// The keeper's answer and its wire form agree with the client's reading.
TEST_P(TakeoverDecision, DecidesAndRoundTrips) {
    const DecisionCase& c = GetParam();
    auto rejection = decideTakeover(c.requested, c.recorded ? &*c.recorded : nullptr);
    ASSERT_EQ(rejection.has_value(), c.reason.has_value());
    if (!rejection)
        return;
    EXPECT_EQ(rejection->reason, *c.reason);
    auto decoded = decodeTakeoverRejection(encodeTakeoverRejection(*rejection));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->reason, *c.reason);
    EXPECT_EQ(decoded->expected, c.expected);
    EXPECT_EQ(decoded->other, c.other);
}

PortableMetadata withoutReplica(PortableMetadata m) {
    m.replicaId.clear();
    return m;
}

PortableMetadata otherReplica(PortableMetadata m) {
    m.replicaId = "cccccccc-2222-3333-4444-555555555555";
    return m;
}

INSTANTIATE_TEST_SUITE_P(
    Protocol, TakeoverDecision,
    ::testing::Values(
        DecisionCase{"Match", lease(8), lease(8), std::nullopt, 0, 0},
        DecisionCase{"KeeperStale", lease(8), lease(7), RejectionReason::KeeperStale, 8, 7},
        DecisionCase{"RequestStale", lease(8), lease(9), RejectionReason::RequestStale, 9, 8},
        DecisionCase{"FieldMissingOnRecord", lease(8), withoutReplica(lease(8)),
                     RejectionReason::Missing, 0, 0},
        DecisionCase{"FieldDiffers", lease(8), otherReplica(lease(8)), RejectionReason::Mismatch, 0,
                     0},
        DecisionCase{"MismatchBeforeGeneration", otherReplica(lease(9)), lease(8),
                     RejectionReason::Mismatch, 0, 0},
        DecisionCase{"OwnRecordMalformed", lease(8), std::nullopt, RejectionReason::Malformed, 0,
                     0}),
    [](const auto& info) { return info.param.name; });

TEST(PortableTakeover, RejectionPayloadLengthsMustFitTheirReason) {
    EXPECT_EQ(decodeTakeoverRejection(std::string(1, '\3')).error(),
              Error::InvalidPortableTakeoverRejection);
    EXPECT_EQ(decodeTakeoverRejection(std::string(17, '\1')).error(),
              Error::InvalidPortableTakeoverRejection);
    EXPECT_EQ(decodeTakeoverRejection(std::string(1, '\6')).error(),
              Error::InvalidPortableTakeoverRejection);
    EXPECT_EQ(decodeTakeoverRejection(std::string(1, '\2'))->reason, RejectionReason::Mismatch);
}

} // namespace
} // namespace tovel
