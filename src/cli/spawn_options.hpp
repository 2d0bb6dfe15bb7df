// Spawn options (terminal size, command, working directory, portable
// metadata). One parser for the command line and one validator of the
// portable metadata shared by every reader.
#pragma once

#include "cli/portable_metadata.hpp"
#include "platform/result.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::uint16_t kDefaultCols = 80;
constexpr std::uint16_t kDefaultRows = 24;

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
// A name: 1 to kMaxNameTextLength of the name characters.
[[nodiscard]] bool isNameText(std::string_view text);
// The name characters alone (letters, digits, + - . _), any length.
[[nodiscard]] bool hasOnlyNameCharacters(std::string_view text);

} // namespace tovel
