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

// One frame read from a socket whose peer wrote `bytes` and closed: its
// payload, "no frame", or the error's name.
std::string readAfter(const std::string& bytes) {
    int fds[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    EXPECT_EQ(::write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fds[1]);
    auto frame = read_frame(fds[0]);
    ::close(fds[0]);
    if (!frame)
        return std::string(errorName(frame.error()));
    return *frame ? "payload:" + (*frame)->payload : "no frame";
}

TEST(ReadFrame, ReadsOrNamesTheFault) {
    EXPECT_EQ(readAfter(""), "no frame"); // a clean close
    EXPECT_EQ(readAfter(std::string("\0\0\0\1\7", 5)), "payload:");
    EXPECT_EQ(readAfter(std::string("\0\0\0\4\4abc", 8)), "payload:abc");
    EXPECT_EQ(readAfter(std::string("\0\0\0", 3)), "UnexpectedEof");
    EXPECT_EQ(readAfter(std::string("\0\0\0\5\4ab", 7)), "UnexpectedEof");
    EXPECT_EQ(readAfter(std::string("\0\0\0\0\4", 5)), "InvalidFrameLength");
    EXPECT_EQ(readAfter(std::string("\0\x40\0\1\4", 5)), "InvalidFrameLength");
}

TEST(WriteFrame, OneBeyondTheLargestPayloadIsRefusedUnwritten) {
    int fds[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    EXPECT_EQ(write_frame(fds[0], FrameType::Output, std::string(0x400000, 'x')).error(),
              Error::FrameTooLarge);
    char probe;
    EXPECT_EQ(::recv(fds[1], &probe, 1, MSG_DONTWAIT), -1);
    ::close(fds[0]);
    ::close(fds[1]);
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

// The keeper's decision as the client reads it back from the wire: reason,
// expected and other generation; or "accepted".
std::string decided(const PortableMetadata& requested, const PortableMetadata* recorded) {
    auto rejection = decideTakeover(requested, recorded);
    if (!rejection)
        return "accepted";
    auto read = decodeTakeoverRejection(encodeTakeoverRejection(*rejection));
    if (!read)
        return std::string(errorName(read.error()));
    return std::to_string(static_cast<int>(read->reason)) + " " + std::to_string(read->expected) +
           " " + std::to_string(read->other);
}

TEST(TakeoverDecision, FieldsFirstThenTheHigherGenerationWins) {
    PortableMetadata noReplica = lease(8), otherReplica = lease(8), otherAt9 = lease(9);
    noReplica.replicaId.clear();
    otherReplica.replicaId = otherAt9.replicaId = "cccccccc-2222-3333-4444-555555555555";
    PortableMetadata eight = lease(8), seven = lease(7), nine = lease(9);
    EXPECT_EQ(decided(lease(8), &eight), "accepted");
    EXPECT_EQ(decided(lease(8), &seven), "3 8 7");        // the keeper is stale
    EXPECT_EQ(decided(lease(8), &nine), "4 9 8");         // the request is stale
    EXPECT_EQ(decided(lease(8), &noReplica), "1 0 0");    // missing on the record
    EXPECT_EQ(decided(lease(8), &otherReplica), "2 0 0"); // mismatch
    EXPECT_EQ(decided(otherAt9, &eight), "2 0 0");        // mismatch before generations
    EXPECT_EQ(decided(lease(8), nullptr), "5 0 0");       // own record malformed
}

TEST(PortableTakeover, RejectionPayloadLengthsMustFitTheirReason) {
    for (std::string bad : {std::string(1, '\3'), std::string(17, '\1'), std::string(1, '\6')})
        EXPECT_EQ(decodeTakeoverRejection(bad).error(), Error::InvalidPortableTakeoverRejection);
    EXPECT_EQ(decodeTakeoverRejection(std::string(1, '\2'))->reason, RejectionReason::Mismatch);
}

} // namespace
} // namespace tovel
