// Portable-takeover payloads and the takeover comparison.
#include "client/protocol/portable_takeover.hpp"

#include "client/protocol/frame.hpp"

namespace tovel {

namespace {

enum PresenceBit : std::uint8_t {
    kWorkspaceBit = 1 << 0,
    kReplicaBit = 1 << 1,
    kGenerationBit = 1 << 2,
    kMigrationBit = 1 << 3,
    kAgentKindBit = 1 << 4,
    kAdapterBit = 1 << 5,
};

// Reads fields off the front of a payload; any overrun marks it bad.
struct Cursor {
    std::string_view rest;
    bool bad = false;

    std::string_view take(std::size_t count) {
        if (bad || rest.size() < count) {
            bad = true;
            return {};
        }
        std::string_view out = rest.substr(0, count);
        rest.remove_prefix(count);
        return out;
    }
};

} // namespace

Result<std::string> encodePortableTakeover(const PortableMetadata& m) {
    std::uint8_t flags = 0;
    flags |= m.workspaceId.empty() ? 0 : kWorkspaceBit;
    flags |= m.replicaId.empty() ? 0 : kReplicaBit;
    flags |= m.leaseGeneration ? kGenerationBit : 0;
    flags |= m.migrationId.empty() ? 0 : kMigrationBit;
    flags |= m.agentKind.empty() ? 0 : kAgentKindBit;
    flags |= m.adapterId.empty() ? 0 : kAdapterBit;
    if (m.agentKind.size() > 255 || m.adapterId.size() > 255)
        return fail(Error::ValueTooLong);
    std::string out;
    out.push_back(static_cast<char>(kTakeoverLayoutVersion));
    out.push_back(static_cast<char>(flags));
    out.append(m.workspaceId);
    out.append(m.replicaId);
    if (m.leaseGeneration) {
        char generation[8];
        putU64(generation, *m.leaseGeneration);
        out.append(generation, sizeof generation);
    }
    out.append(m.migrationId);
    for (const std::string* text : {&m.agentKind, &m.adapterId}) {
        if (text->empty())
            continue;
        out.push_back(static_cast<char>(text->size()));
        out.append(*text);
    }
    return out;
}

Result<PortableMetadata> decodePortableTakeover(std::string_view payload) {
    if (payload.size() < 2 || static_cast<std::uint8_t>(payload[0]) != kTakeoverLayoutVersion)
        return fail(Error::InvalidFrame);
    auto flags = static_cast<std::uint8_t>(payload[1]);
    Cursor cursor{payload.substr(2)};
    PortableMetadata m;
    if (flags & kWorkspaceBit)
        m.workspaceId = std::string(cursor.take(kUuidTextLength));
    if (flags & kReplicaBit)
        m.replicaId = std::string(cursor.take(kUuidTextLength));
    if (flags & kGenerationBit) {
        std::string_view generation = cursor.take(8);
        if (!cursor.bad)
            m.leaseGeneration = getU64(generation.data());
    }
    if (flags & kMigrationBit)
        m.migrationId = std::string(cursor.take(kUuidTextLength));
    for (std::string* text : {&m.agentKind, &m.adapterId}) {
        std::uint8_t bit = text == &m.agentKind ? kAgentKindBit : kAdapterBit;
        if (!(flags & bit))
            continue;
        std::string_view length = cursor.take(1);
        if (!cursor.bad)
            *text = std::string(cursor.take(static_cast<std::uint8_t>(length[0])));
    }
    if (cursor.bad)
        return fail(Error::InvalidFrame);
    return m;
}

PortableComparison compare_portable(const PortableMetadata& requested,
                                    const PortableMetadata& recorded) {
    using Kind = PortableComparison::Kind;
    if (requested.empty())
        return {Kind::NoCheck, {}, 0, 0};
    auto checkText = [](std::string_view field, const std::string& want,
                        const std::string& have) -> std::optional<PortableComparison> {
        if (want.empty())
            return std::nullopt;
        if (have.empty())
            return PortableComparison{Kind::Missing, field, 0, 0};
        if (want != have)
            return PortableComparison{Kind::Mismatch, field, 0, 0};
        return std::nullopt;
    };
    if (auto finding = checkText("workspace_id", requested.workspaceId, recorded.workspaceId))
        return *finding;
    if (auto finding = checkText("replica_id", requested.replicaId, recorded.replicaId))
        return *finding;
    if (requested.leaseGeneration) {
        if (!recorded.leaseGeneration)
            return {Kind::Missing, "lease_generation", 0, 0};
        std::uint64_t want = *requested.leaseGeneration;
        std::uint64_t have = *recorded.leaseGeneration;
        if (have < want)
            return {Kind::KeeperStale, {}, want, have};
        if (have > want)
            return {Kind::RequestStale, {}, have, want};
    }
    if (auto finding = checkText("migration_id", requested.migrationId, recorded.migrationId))
        return *finding;
    if (auto finding = checkText("agent_kind", requested.agentKind, recorded.agentKind))
        return *finding;
    if (auto finding = checkText("adapter_id", requested.adapterId, recorded.adapterId))
        return *finding;
    return {Kind::Match, {}, 0, 0};
}

std::optional<TakeoverRejection> decideTakeover(const PortableMetadata& requested,
                                                const PortableMetadata* recorded) {
    if (recorded == nullptr)
        return TakeoverRejection{RejectionReason::Malformed, 0, 0};
    PortableComparison comparison = compare_portable(requested, *recorded);
    switch (comparison.kind) {
    case PortableComparison::Kind::NoCheck:
    case PortableComparison::Kind::Match:
        return std::nullopt;
    case PortableComparison::Kind::Missing:
        return TakeoverRejection{RejectionReason::Missing, 0, 0};
    case PortableComparison::Kind::Mismatch:
        return TakeoverRejection{RejectionReason::Mismatch, 0, 0};
    case PortableComparison::Kind::KeeperStale:
        return TakeoverRejection{RejectionReason::KeeperStale, comparison.expected,
                                 comparison.other};
    case PortableComparison::Kind::RequestStale:
        return TakeoverRejection{RejectionReason::RequestStale, comparison.expected,
                                 comparison.other};
    }
    return TakeoverRejection{RejectionReason::Malformed, 0, 0};
}

std::string encodeTakeoverRejection(const TakeoverRejection& rejection) {
    std::string out(1, static_cast<char>(rejection.reason));
    if (rejection.reason == RejectionReason::KeeperStale ||
        rejection.reason == RejectionReason::RequestStale) {
        char generations[16];
        putU64(generations, rejection.expected);
        putU64(generations + 8, rejection.other);
        out.append(generations, sizeof generations);
    }
    return out;
}

Result<TakeoverRejection> decodeTakeoverRejection(std::string_view payload) {
    if (payload.empty())
        return fail(Error::InvalidPortableTakeoverRejection);
    auto reason = static_cast<std::uint8_t>(payload[0]);
    bool carriesGenerations = reason == 3 || reason == 4;
    if (reason < 1 || reason > 5 || payload.size() != (carriesGenerations ? 17u : 1u))
        return fail(Error::InvalidPortableTakeoverRejection);
    TakeoverRejection rejection{static_cast<RejectionReason>(reason), 0, 0};
    if (carriesGenerations) {
        rejection.expected = getU64(payload.data() + 1);
        rejection.other = getU64(payload.data() + 9);
    }
    return rejection;
}

Error rejectionError(RejectionReason reason) {
    switch (reason) {
    case RejectionReason::Missing:
        return Error::PortableMetadataMissing;
    case RejectionReason::Mismatch:
        return Error::PortableMetadataMismatch;
    case RejectionReason::KeeperStale:
        return Error::StalePortableKeeper;
    case RejectionReason::RequestStale:
        return Error::StalePortableRequest;
    case RejectionReason::Malformed:
        return Error::PortableMetadataMalformed;
    }
    return Error::InvalidPortableTakeoverRejection;
}

} // namespace tovel
