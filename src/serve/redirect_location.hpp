// The Location of the server's redirects that repeat the request path: the
// path as the client sent it (still percent-encoded, query dropped), made
// safe to send back as a header value that stays on this server.
#pragma once

#include <string>
#include <string_view>

namespace tovel::serve {

// prefix + the raw request path + suffix, where the path is written with
//  - a leading run of slashes reduced to one: "//host/x" would be read by a
//    browser as another host, while the server itself drops empty segments,
//    so "/host/x" names the same file here;
//  - control bytes, DEL and "\" percent-encoded: they cannot stand in a
//    header line, and browsers read "/\host" like "//host". Each encoded
//    byte decodes back to itself, so the target resolves as before.
// Every other byte, escapes included, is repeated exactly as received.
[[nodiscard]] std::string redirectLocation(std::string_view prefix, std::string_view rawPath,
                                           std::string_view suffix);

} // namespace tovel::serve
