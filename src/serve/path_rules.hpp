// The server's path-safety rules: percent-decoding of request paths, the
// segment rules, and containment in the root (with the external-symlink
// mount). The protected names live in protected_path.hpp.
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

enum class Containment { Inside, ExternalMount, Outside };

// Where a resolved target lies: inside the root, inside the directory of a
// symbolic link placed directly in the root (an external mount), or
// outside (refused).
[[nodiscard]] Containment containmentOf(std::string_view rootRealPath,
                                        std::string_view relativePath,
                                        std::string_view targetRealPath);

} // namespace tovel::serve
