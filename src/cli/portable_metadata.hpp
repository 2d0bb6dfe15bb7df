// The portable metadata that ties a session to a workspace replica and a
// lease: given on the command line, recorded beside the session and carried
// in a takeover request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tovel {

constexpr std::size_t kUuidTextLength = 36;
constexpr std::size_t kMaxNameTextLength = 128;

// Every field absent (empty) means no portable metadata at all. An empty
// string counts as absent everywhere.
struct PortableMetadata {
    std::string workspaceId;
    std::string replicaId;
    std::optional<std::uint64_t> leaseGeneration;
    std::string migrationId;
    std::string agentKind;
    std::string adapterId;

    [[nodiscard]] bool empty() const {
        return workspaceId.empty() && replicaId.empty() && !leaseGeneration &&
               migrationId.empty() && agentKind.empty() && adapterId.empty();
    }
    bool operator==(const PortableMetadata&) const = default;
};

} // namespace tovel
