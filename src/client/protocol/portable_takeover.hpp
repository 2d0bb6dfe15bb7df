// The portable-takeover exchange's payloads, and the one comparison that
// both `ensure` (against the metadata file) and the keeper (answering a
// takeover request) use to decide whether a request may attach.
#pragma once

#include "cli/portable_metadata.hpp"
#include "platform/result.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::uint8_t kTakeoverLayoutVersion = 1;

// The request record: layout version, presence flags, then each present
// field. ValueTooLong when a text needs a length byte of 256 or more.
[[nodiscard]] Result<std::string> encodePortableTakeover(const PortableMetadata& metadata);
// InvalidFrame when the layout version is not 1, the payload is shorter
// than two bytes, or a field runs past the end.
[[nodiscard]] Result<PortableMetadata> decodePortableTakeover(std::string_view payload);

struct PortableComparison {
    enum class Kind { NoCheck, Match, Missing, Mismatch, KeeperStale, RequestStale };
    Kind kind = Kind::NoCheck;
    std::string_view field; // for Missing and Mismatch
    // KeeperStale: expected = requested, other = recorded (observed).
    // RequestStale: expected = recorded, other = requested (received).
    std::uint64_t expected = 0;
    std::uint64_t other = 0;
};

// Fixed order: workspace_id, replica_id, lease_generation, migration_id,
// agent_kind, adapter_id; the first finding wins. A field the request lacks
// is never checked; a field the record lacks fails. The lower generation is
// the stale side.
[[nodiscard]] PortableComparison compare_portable(const PortableMetadata& requested,
                                                  const PortableMetadata& recorded);

enum class RejectionReason : std::uint8_t {
    Missing = 1,
    Mismatch = 2,
    KeeperStale = 3,
    RequestStale = 4,
    Malformed = 5,
};

struct TakeoverRejection {
    RejectionReason reason = RejectionReason::Mismatch;
    std::uint64_t expected = 0;
    std::uint64_t other = 0; // observed (3) or received (4)
};

// The keeper's answer to a request: nothing when it may proceed. A keeper
// whose own record is malformed passes nullptr for `recorded`.
[[nodiscard]] std::optional<TakeoverRejection> decideTakeover(const PortableMetadata& requested,
                                                              const PortableMetadata* recorded);

[[nodiscard]] std::string encodeTakeoverRejection(const TakeoverRejection& rejection);
// InvalidPortableTakeoverRejection for an unknown reason or a length that
// does not fit it (1 byte, or 17 for reasons 3 and 4).
[[nodiscard]] Result<TakeoverRejection> decodeTakeoverRejection(std::string_view payload);
// The client-side error name of a reason.
[[nodiscard]] Error rejectionError(RejectionReason reason);

} // namespace tovel
