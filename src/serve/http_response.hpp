// The server's responses: the four header sets (static file, browser page,
// redirect, error), the content types, and writing to the connection.
#pragma once

#include "platform/result.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace tovel::serve {

enum class Disposition { Inline, Attachment };

[[nodiscard]] std::string_view contentTypeFor(std::string_view fileName);

// Header set S: 200 with type, length and the static-file policy headers.
[[nodiscard]] std::string staticFileHead(std::string_view contentType, std::uint64_t length,
                                         Disposition disposition);
// Header set H: 200 for a streamed browser page (no length).
[[nodiscard]] std::string_view browserPageHead();
// Header set R: 302 to `location`.
[[nodiscard]] std::string redirectHead(std::string_view location);

enum class Status { BadRequest, Forbidden, NotFound, MethodNotAllowed, InternalServerError };

enum class Body { Send, Omit };

// Header set E and its body (the reason phrase and "\n"), or only the head.
[[nodiscard]] std::string errorResponse(Status status, Body body);

} // namespace tovel::serve
