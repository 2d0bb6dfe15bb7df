// The session's metadata record: "key=value" lines beside the socket, written
// by the keeper, read back by list, inspect and ensure.
#pragma once

#include "cli/portable_metadata.hpp"
#include "platform/result.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::size_t kMaxMetadataSize = 16384;
constexpr std::size_t kMaxMetadataCwd = 4096;

// Every field is optional because a record read back may lack any line; the
// keeper always fills the first seven.
struct SessionMetadata {
    std::optional<std::int64_t> keeperPid;
    std::optional<std::int64_t> shellPid;
    std::optional<std::uint16_t> cols;
    std::optional<std::uint16_t> rows;
    std::optional<std::int64_t> startedAt;
    std::optional<std::int64_t> lastAttachedAt;
    std::optional<std::string> cwd; // raw bytes, decoded from cwd_hex
    PortableMetadata portable;
};

struct MetadataRecord {
    SessionMetadata metadata;
    bool ok = false;
};

// The file's text: the seven fixed lines, then each present portable field.
// MetadataTooLarge when it would not fit 16384 bytes.
[[nodiscard]] Result<std::string> formatSessionMetadata(const SessionMetadata& metadata);

// Never fails on content: fills what it can; ok only when keeper_pid was
// present, no value was bad and the portable fields pass validation.
[[nodiscard]] MetadataRecord parseSessionMetadata(std::string_view text);

// Replaces `path` (mode 0600) with the formatted record through a temporary
// file beside it and a rename; links are replaced, never followed.
[[nodiscard]] Result<> writeSessionMetadata(std::string_view path, const SessionMetadata& metadata);

// Reads at most 16384 bytes of `path`.
[[nodiscard]] Result<std::string> readMetadataBytes(std::string_view path);

} // namespace tovel
