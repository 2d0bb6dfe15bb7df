// Path-safety rules.
#include "serve/path_rules.hpp"

#include "platform/decimal.hpp"

namespace tovel::serve {

std::optional<std::string> percentDecode(std::string_view path) {
    std::string decoded;
    decoded.reserve(path.size());
    for (std::size_t i = 0; i < path.size(); ++i) {
        char c = path[i];
        if (c == '%') {
            if (i + 2 >= path.size())
                return std::nullopt;
            int high = hexDigitValue(path[i + 1]);
            int low = hexDigitValue(path[i + 2]);
            if (high < 0 || low < 0)
                return std::nullopt;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        decoded.push_back(c);
        if (decoded.size() >= kMaxDecodedPath)
            return std::nullopt;
    }
    return decoded;
}

std::optional<std::string> relativePathOf(std::string_view decoded) {
    std::string relative;
    while (!decoded.empty()) {
        std::size_t slash = decoded.find('/');
        std::string_view segment = decoded.substr(0, slash);
        decoded = slash == std::string_view::npos ? std::string_view() : decoded.substr(slash + 1);
        if (segment.empty())
            continue;
        if (segment == ".." || segment.find('\0') != std::string_view::npos)
            return std::nullopt;
        if (!relative.empty())
            relative.push_back('/');
        relative.append(segment);
    }
    if (relative.size() > kMaxDecodedPath)
        return std::nullopt;
    return relative;
}

bool isInside(std::string_view path, std::string_view directory) {
    if (!path.starts_with(directory))
        return false;
    if (path.size() == directory.size())
        return true;
    // The root itself may be "/", whose children do not repeat the slash.
    return directory.ends_with('/') || path[directory.size()] == '/';
}

} // namespace tovel::serve
