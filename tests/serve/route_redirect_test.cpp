// Redirect targets built from the raw request path: they repeat it exactly,
// except what would leave this server or break the header line.
#include "serve/redirect_location.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace tovel::serve {
namespace {

TEST(RedirectLocation, StaysOnThisServer) {
    // prefix, raw path, suffix, location
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        {"", "/docs", "/", "/docs/"},
        {"", "/a%20b/%2e", "/", "/a%20b/%2e/"},
        {"", "//evil.host/x", "/", "/evil.host/x/"},
        {"", "///", "", "/"},
        {"", "/\\evil.host", "/", "/%5Cevil.host/"},
        {"", std::string("/a\r\nb\x7f\0", 7), "/", "/a%0D%0Ab%7F%00/"},
        {"/__tovel", "//docs", "/", "/__tovel/docs/"},
        {"/__tovel", "/", "", "/__tovel/"}};
    for (const auto& [prefix, rawPath, suffix, location] : cases)
        EXPECT_EQ(redirectLocation(prefix, rawPath, suffix), location) << rawPath;
}

} // namespace
} // namespace tovel::serve
