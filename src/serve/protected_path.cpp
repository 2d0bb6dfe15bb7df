// Protected names and paths.
#include "serve/protected_path.hpp"

#include <array>

namespace tovel::serve {

namespace {

constexpr std::array<std::string_view, 5> kProtectedDirectories = {".ssh", ".aws", ".kube",
                                                                   ".gnupg", ".docker"};
constexpr std::array<std::string_view, 4> kProtectedFiles = {".netrc", ".npmrc", ".pypirc", ".env"};
constexpr std::string_view kEnvVariantPrefix = ".env.";
// Compared without regard to ASCII case, so "id.KEY" is as secret as "id.key".
constexpr std::array<std::string_view, 4> kKeySuffixes = {".pem", ".key", ".p12", ".pfx"};

bool endsWithFolded(std::string_view text, std::string_view lowerSuffix) {
    if (text.size() < lowerSuffix.size())
        return false;
    text = text.substr(text.size() - lowerSuffix.size());
    for (std::size_t i = 0; i < lowerSuffix.size(); ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        if (c != lowerSuffix[i])
            return false;
    }
    return true;
}

bool isProtectedDirectory(std::string_view segment) {
    for (std::string_view name : kProtectedDirectories) {
        if (segment == name)
            return true;
    }
    return false;
}

} // namespace

bool isProtectedName(std::string_view lastSegment) {
    for (std::string_view name : kProtectedFiles) {
        if (lastSegment == name)
            return true;
    }
    if (lastSegment.starts_with(kEnvVariantPrefix))
        return true;
    for (std::string_view suffix : kKeySuffixes) {
        if (endsWithFolded(lastSegment, suffix))
            return true;
    }
    return false;
}

bool isProtectedPath(std::string_view relativePath) {
    std::string_view rest = relativePath;
    std::string_view last;
    while (!rest.empty()) {
        std::size_t slash = rest.find('/');
        std::string_view segment = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (isProtectedDirectory(segment))
            return true;
        if (!segment.empty())
            last = segment;
    }
    return isProtectedName(last);
}

} // namespace tovel::serve
