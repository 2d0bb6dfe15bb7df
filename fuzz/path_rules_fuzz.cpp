// Arbitrary bytes as a request path: whatever decoding and the segment rules
// accept is short, relative, and free of ".." segments and NUL bytes, and
// the protected-name rule answers for any input.
#include "serve/path_rules.hpp"
#include "serve/protected_path.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace tovel::serve;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view path(reinterpret_cast<const char*>(data), size);
    (void)isProtectedPath(path);
    (void)isInside(path, path.substr(0, size / 2));
    auto decoded = percentDecode(path);
    if (!decoded)
        return 0;
    if (decoded->size() >= kMaxDecodedPath)
        std::abort();
    auto relative = relativePathOf(*decoded);
    if (!relative)
        return 0;
    std::string_view rest = *relative;
    if (rest.starts_with('/') || rest.find('\0') != std::string_view::npos)
        std::abort();
    while (!rest.empty()) {
        std::string_view segment = rest.substr(0, rest.find('/'));
        if (segment.empty() || segment == "..")
            std::abort();
        rest.remove_prefix(std::min(rest.size(), segment.size() + 1));
    }
    return 0;
}
