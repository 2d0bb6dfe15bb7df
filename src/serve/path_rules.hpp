// The server's path-safety rules: percent-decoding of request paths, the
// segment rules, and containment in a directory's real path. The protected
// names live in protected_path.hpp.
#pragma once

#include "platform/result.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace tovel::serve {

constexpr std::size_t kMaxDecodedPath = 4096;

// Percent-decodes a request path. nullopt for a "%" without two hex digits
// or a result of 4096 bytes or more.
[[nodiscard]] std::optional<std::string> percentDecode(std::string_view path);

// The decoded path as a relative path below the root: empty segments
// dropped, joined with "/". nullopt for a ".." segment, a NUL byte or an
// over-long result.
[[nodiscard]] std::optional<std::string> relativePathOf(std::string_view decoded);

// `path` equals `directory` or lies below it (bytes only).
[[nodiscard]] bool isInside(std::string_view path, std::string_view directory);

} // namespace tovel::serve
