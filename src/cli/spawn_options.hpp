// Spawn options (terminal size, command, working directory) and the
// portable metadata that ties a session to a workspace replica and a lease.
// One parser for the command line and one validator shared by every reader.
#pragma once

#include "platform/result.hpp"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::uint16_t kDefaultCols = 80;
constexpr std::uint16_t kDefaultRows = 24;
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

struct SpawnOptions {
    std::uint16_t cols = kDefaultCols;
    std::uint16_t rows = kDefaultRows;
    std::string cmd; // empty: the login shell
    std::string cwd; // empty: the keeper's working directory
    PortableMetadata portable;
};

enum class OptionSet { All, DimensionsOnly };

// Parses option/value pairs; a value is never read as an option name.
[[nodiscard]] Result<SpawnOptions> parseSpawnOptions(std::span<const std::string_view> args,
                                                     OptionSet allowed);

// The combined rule: workspace, replica and lease generation all or none,
// then the per-field text rules, in a fixed order.
[[nodiscard]] Result<> validatePortableMetadata(const PortableMetadata& metadata);

[[nodiscard]] bool isUuidText(std::string_view text);
[[nodiscard]] bool isNameText(std::string_view text);

} // namespace tovel
