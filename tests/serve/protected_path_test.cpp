// The protected-path predicate: which names are never served, in every
// case variant the rule distinguishes.
#include "serve/protected_path.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace tovel::serve {
namespace {

TEST(ProtectedPath, FollowsTheRule) {
    // clang-format off
    const std::pair<std::string, bool> cases[] = {
        {".ssh", true}, {".ssh/config", true}, {"home/u/.aws/x/creds", true},
        {"a/.kube/config", true}, {".gnupg/pubring.kbx", true}, {"x/.docker/config.json", true},
        {".SSH/config", false}, {".sshd/config", false}, {".netrc", true}, {"app/.npmrc", true},
        {".pypirc", true}, {"app/.env", true}, {"app/.env.local", true}, {".env.", true},
        {"app/.envrc", false}, {"app/.ENV", false}, {".netrc/readme", false}, {"id.pem", true},
        {"home/id.KEY", true}, {"certs/a.P12", true}, {"certs/a.pFx", true}, {".pem", true},
        {"app/env.pem.txt", false}, {"x.key/readme", false}, {"monkey", false},
        {"app/.env/", true}, {"a//.ssh//x", true}, {"", false}, {"docs/readme.md", false}};
    // clang-format on
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(isProtectedPath(path), expected) << path;
    EXPECT_TRUE(isProtectedName(".env.production"));
    EXPECT_FALSE(isProtectedName(".ssh")); // a directory rule, not a name rule
}

} // namespace
} // namespace tovel::serve
