// Redirect targets built from the raw request path: they repeat it exactly,
// except what would leave this server or break the header line.
#include "serve/redirect_location.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tovel::serve {
namespace {

struct LocationCase {
    const char* name;
    std::string prefix;
    std::string rawPath;
    std::string suffix;
    std::string location;
};

class RedirectLocation : public ::testing::TestWithParam<LocationCase> {};

TEST_P(RedirectLocation, StaysOnThisServer) {
    const LocationCase& c = GetParam();
    EXPECT_EQ(redirectLocation(c.prefix, c.rawPath, c.suffix), c.location);
}

INSTANTIATE_TEST_SUITE_P(
    Serve, RedirectLocation,
    ::testing::Values(
        LocationCase{"Plain", "", "/docs", "/", "/docs/"},
        LocationCase{"EscapesKept", "", "/a%20b/%2e", "/", "/a%20b/%2e/"},
        LocationCase{"PlusKept", "", "/a+b", "/", "/a+b/"},
        LocationCase{"InnerDoubleSlashKept", "", "/a//b", "/", "/a//b/"},
        LocationCase{"LeadingSlashesCollapsed", "", "//evil.host/x", "/", "/evil.host/x/"},
        LocationCase{"OnlySlashes", "", "///", "", "/"},
        LocationCase{"Backslash", "", "/\\evil.host", "/", "/%5Cevil.host/"},
        LocationCase{"ControlBytes", "", std::string("/a\r\nb\x7f\0", 7), "/", "/a%0D%0Ab%7F%00/"},
        LocationCase{"HighBytesKept", "", "/caf\xc3\xa9", "/", "/caf\xc3\xa9/"},
        LocationCase{"BrowserPrefix", "/__tovel", "//docs", "/", "/__tovel/docs/"},
        LocationCase{"BrowserRoot", "/__tovel", "/", "", "/__tovel/"}),
    [](const auto& info) { return info.param.name; });

} // namespace
} // namespace tovel::serve
