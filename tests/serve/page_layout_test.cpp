// The browser page in headless Chromium at a desktop and a phone width: the
// buttons of a row stay side by side. Screenshots are left in the build tree.
#include "serve_fixture.hpp"

#include <cstdio>
#include <unistd.h>

namespace tovel::test {
namespace {

TEST_F(ServeFixture, PageButtonsShareOneLineAtEveryWidth) {
    if (::access(TOVEL_CHROMIUM, X_OK) != 0 || ::access(TOVEL_PLAYWRIGHT_CORE, R_OK) != 0)
        GTEST_SKIP() << "chromium or playwright-core could not be installed";
    writeFile("a-rather-long-report-name-for-the-quarterly-numbers.txt", "x");
    writeFile("src/main.cpp", "x");
    writeFile("server.pem", "x");
    startServer();
    for (const char* width : {"1280", "375"}) {
        std::string command = "CHROMIUM=" TOVEL_CHROMIUM " PLAYWRIGHT_CORE=" TOVEL_PLAYWRIGHT_CORE
                              " node " TOVEL_PAGE_LAYOUT_SCRIPT " http://127.0.0.1:" +
                              std::to_string(port_) + "/__tovel/ " + width + " page-" + width +
                              ".png " + tree_.path() + "/profile-" + width + " 2>&1";
        FILE* node = ::popen(command.c_str(), "r");
        ASSERT_NE(node, nullptr);
        std::string output;
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, node) != nullptr)
            output += buffer;
        ::pclose(node);
        EXPECT_EQ(output, "ok\n") << width << " px";
    }
}

} // namespace
} // namespace tovel::test
