// Arbitrary bytes as a request head: finding its end, the request line, the
// target's path and query, parameters and the Host check never read outside
// the input, and what they return holds what it promises.
#include "serve/request_head.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

using namespace tovel::serve;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view head(reinterpret_cast<const char*>(data), size);
    auto end = headEnd(head, size / 2);
    if (end && (*end > size || head.substr(*end - 4, 4) != "\r\n\r\n"))
        std::abort();
    RequestLine line = parseRequestLine(head);
    if (line.method.find(' ') != std::string_view::npos ||
        line.target.find('\r') != std::string_view::npos)
        std::abort();
    Target target = splitTarget(line.target);
    if (target.path.find_first_of("?#") != std::string_view::npos)
        std::abort();
    (void)queryParameter(target.query, "q");
    (void)flagOn(target.query, "hidden");
    (void)checkHost(head);
    return 0;
}
