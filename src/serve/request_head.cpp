// Parsing the request head.
#include "serve/request_head.hpp"

namespace tovel::serve {

namespace {

constexpr std::size_t kMaxPortDigits = 5;

std::string_view nextToken(std::string_view& line) {
    std::size_t start = line.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        line = {};
        return {};
    }
    line.remove_prefix(start);
    std::size_t end = line.find(' ');
    std::string_view token = line.substr(0, end);
    line = end == std::string_view::npos ? std::string_view() : line.substr(end);
    return token;
}

char foldAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsFolded(std::string_view text, std::string_view lower) {
    if (text.size() != lower.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (foldAscii(text[i]) != lower[i])
            return false;
    }
    return true;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isHexDigit(char c) {
    return isDigit(c) || (foldAscii(c) >= 'a' && foldAscii(c) <= 'f');
}

std::string_view trimBlanks(std::string_view text) {
    std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos)
        return {};
    std::size_t end = text.find_last_not_of(" \t");
    return text.substr(start, end - start + 1);
}

// Four decimal parts of at most 255, split by dots.
bool isIpv4Literal(std::string_view text) {
    for (int part = 0; part < 4; ++part) {
        std::size_t digits = 0;
        unsigned value = 0;
        while (digits < text.size() && digits < 3 && isDigit(text[digits]))
            value = value * 10 + static_cast<unsigned>(text[digits++] - '0');
        if (digits == 0 || value > 255)
            return false;
        text.remove_prefix(digits);
        if (part < 3) {
            if (text.empty() || text.front() != '.')
                return false;
            text.remove_prefix(1);
        }
    }
    return text.empty();
}

// Hex digits, colons and (for an embedded IPv4 tail) dots, with at least
// two colons: the bracketed form of an IPv6 address.
bool isIpv6Literal(std::string_view text) {
    int colons = 0;
    for (char c : text) {
        if (c == ':')
            ++colons;
        else if (!isHexDigit(c) && c != '.')
            return false;
    }
    return colons >= 2 && text.size() <= 45;
}

bool isPortOrNothing(std::string_view text) {
    if (text.empty())
        return true;
    if (text.front() != ':' || text.size() == 1 || text.size() > kMaxPortDigits + 1)
        return false;
    for (char c : text.substr(1)) {
        if (!isDigit(c))
            return false;
    }
    return true;
}

bool isAllowedHost(std::string_view host) {
    if (host.starts_with('[')) {
        std::size_t close = host.find(']');
        return close != std::string_view::npos && isIpv6Literal(host.substr(1, close - 1)) &&
               isPortOrNothing(host.substr(close + 1));
    }
    std::size_t colon = host.find(':');
    std::string_view name = host.substr(0, colon);
    std::string_view port =
        colon == std::string_view::npos ? std::string_view() : host.substr(colon);
    return (equalsFolded(name, "localhost") || isIpv4Literal(name)) && isPortOrNothing(port);
}

} // namespace

std::optional<std::size_t> headEnd(std::string_view received, std::size_t searchFrom) {
    std::size_t at = received.find("\r\n\r\n", searchFrom >= 3 ? searchFrom - 3 : 0);
    if (at == std::string_view::npos)
        return std::nullopt;
    return at + 4;
}

RequestLine parseRequestLine(std::string_view head) {
    std::string_view line = head.substr(0, head.find('\r'));
    RequestLine request;
    request.method = nextToken(line);
    request.target = nextToken(line);
    request.version = nextToken(line);
    return request;
}

Target splitTarget(std::string_view target) {
    target = target.substr(0, target.find('#'));
    std::size_t question = target.find('?');
    if (question == std::string_view::npos)
        return {target, {}};
    return {target.substr(0, question), target.substr(question + 1)};
}

std::optional<std::string_view> queryParameter(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        std::size_t amp = query.find('&');
        std::string_view pair = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        std::size_t equals = pair.find('=');
        if (pair.substr(0, equals) == name)
            return equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
    }
    return std::nullopt;
}

bool flagOn(std::string_view query, std::string_view name) {
    return queryParameter(query, name) == std::string_view("1");
}

HostCheck checkHost(std::string_view head) {
    std::size_t lineStart = head.find("\r\n");
    while (lineStart != std::string_view::npos) {
        lineStart += 2;
        std::size_t lineEnd = head.find("\r\n", lineStart);
        std::string_view line = head.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd;
        std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || !equalsFolded(line.substr(0, colon), "host"))
            continue;
        if (!isAllowedHost(trimBlanks(line.substr(colon + 1))))
            return HostCheck::Refused;
    }
    return HostCheck::Allowed;
}

} // namespace tovel::serve
