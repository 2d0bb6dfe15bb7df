// Redirect targets built from the raw request path.
#include "serve/redirect_location.hpp"

namespace tovel::serve {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool needsEncoding(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f || byte == '\\';
}

} // namespace

std::string redirectLocation(std::string_view prefix, std::string_view rawPath,
                             std::string_view suffix) {
    std::size_t firstOther = rawPath.find_first_not_of('/');
    if (firstOther == std::string_view::npos)
        firstOther = rawPath.size();
    if (firstOther > 1)
        rawPath.remove_prefix(firstOther - 1);

    std::string location;
    location.reserve(prefix.size() + rawPath.size() + suffix.size());
    location.append(prefix);
    for (char c : rawPath) {
        auto byte = static_cast<unsigned char>(c);
        if (!needsEncoding(byte)) {
            location.push_back(c);
            continue;
        }
        location.push_back('%');
        location.push_back(kHexDigits[byte >> 4]);
        location.push_back(kHexDigits[byte & 0x0f]);
    }
    location.append(suffix);
    return location;
}

} // namespace tovel::serve
