// The request head as bytes: where it ends, its request line, the target's
// path and query, query parameters, and the Host header, the one header
// line that is read. Nothing here touches a socket.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace tovel::serve {

// Where "\r\n\r\n" ends within `received`, looking from `searchFrom` on
// (the caller passes how much it had already searched); nullopt while the
// head is incomplete.
[[nodiscard]] std::optional<std::size_t> headEnd(std::string_view received, std::size_t searchFrom);

struct RequestLine {
    std::string_view method;
    std::string_view target;
    std::string_view version; // empty when the line has fewer than three tokens
};

// The text before the first "\r", split on runs of spaces.
[[nodiscard]] RequestLine parseRequestLine(std::string_view head);

struct Target {
    std::string_view path;  // raw, still percent-encoded
    std::string_view query; // after "?", without the fragment
};

// Drops the fragment, then splits path and query at the first "?".
[[nodiscard]] Target splitTarget(std::string_view target);

// A parameter's value in the query ("name=value" pairs split by "&").
[[nodiscard]] std::optional<std::string_view> queryParameter(std::string_view query,
                                                             std::string_view name);

// A flag is on only when its value is exactly "1".
[[nodiscard]] bool flagOn(std::string_view query, std::string_view name);

enum class HostCheck { Allowed, Refused };

// Every Host header line must name an IP literal (dotted IPv4, or IPv6 in
// brackets) or "localhost", each with or without a port. A page of some
// other site that got the browser here by rebinding its name carries that
// name instead. A head without a Host line is allowed.
[[nodiscard]] HostCheck checkHost(std::string_view head);

} // namespace tovel::serve
