// Opening a request's target: the path is decoded and checked by the path
// rules, then opened once, by the kernel, beneath a descriptor of the root
// (or of the one external mount's directory). Everything after that works
// on the descriptor, so a link swapped in later cannot redirect it.
#pragma once

#include "platform/unique_fd.hpp"
#include "serve/http_response.hpp"
#include "serve/serve_settings.hpp"

#include <expected>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace tovel::serve {

struct OpenTarget {
    std::string relative; // decoded, below the root
    std::string realPath; // where the opened file or directory is
    UniqueFd fd;
    struct stat status;
};

// Decodes `rawPath` and opens what it names; the error is the status that
// answers the request (403 for what the rules refuse or what lies outside
// the root, 404 for what is missing or unreadable).
[[nodiscard]] std::expected<OpenTarget, Status> openRequestPath(const ServeSettings& settings,
                                                                std::string_view rawPath);

// Opens `relative` (already decoded and checked) the same way.
[[nodiscard]] std::expected<OpenTarget, Status> openRelative(const ServeSettings& settings,
                                                             std::string relative);

// The requested path and the opened one must both be free of secrets: a
// link inside the root must not open a protected file under another name.
[[nodiscard]] bool isProtectedTarget(const ServeSettings& settings, const OpenTarget& target);

} // namespace tovel::serve
