// The names the server never sends: credential stores, private keys and
// common secret files. Raw requests, the browser's listings and the subtree
// search all ask the same two questions here.
#pragma once

#include <string_view>

namespace tovel::serve {

// A protected last segment: ".netrc", ".npmrc", ".pypirc", ".env", ".env.*"
// (case-sensitive), or a name ending in ".pem", ".key", ".p12" or ".pfx"
// (ASCII case-insensitive).
[[nodiscard]] bool isProtectedName(std::string_view lastSegment);

// A path relative to the served root (segments split by "/", empty ones
// ignored) is protected when any segment is exactly ".ssh", ".aws", ".kube",
// ".gnupg" or ".docker", or when its last segment is a protected name.
[[nodiscard]] bool isProtectedPath(std::string_view relativePath);

} // namespace tovel::serve
