// The protected-path predicate: which names are never served, in every
// case variant the rule distinguishes.
#include "serve/protected_path.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tovel::serve {
namespace {

struct ProtectedCase {
    const char* name;
    std::string path;
    bool isProtected;
};

class ProtectedPath : public ::testing::TestWithParam<ProtectedCase> {};

TEST_P(ProtectedPath, FollowsTheRule) {
    EXPECT_EQ(isProtectedPath(GetParam().path), GetParam().isProtected) << GetParam().path;
}

INSTANTIATE_TEST_SUITE_P(
    Serve, ProtectedPath,
    ::testing::Values(
        ProtectedCase{"SshDirectoryItself", ".ssh", true},
        ProtectedCase{"InsideSsh", ".ssh/config", true},
        ProtectedCase{"DeepInsideAws", "home/u/.aws/x/credentials", true},
        ProtectedCase{"Kube", "a/.kube/config", true},
        ProtectedCase{"Gnupg", ".gnupg/pubring.kbx", true},
        ProtectedCase{"Docker", "x/.docker/config.json", true},
        ProtectedCase{"DirectoryNamesAreCaseSensitive", ".SSH/config", false},
        ProtectedCase{"DirectoryNameMustBeExact", ".sshd/config", false},
        ProtectedCase{"Netrc", ".netrc", true}, ProtectedCase{"Npmrc", "app/.npmrc", true},
        ProtectedCase{"Pypirc", ".pypirc", true}, ProtectedCase{"Env", "app/.env", true},
        ProtectedCase{"EnvVariant", "app/.env.local", true},
        ProtectedCase{"EnvDotOnly", ".env.", true}, ProtectedCase{"Envrc", "app/.envrc", false},
        ProtectedCase{"EnvUpperCase", "app/.ENV", false},
        ProtectedCase{"NetrcOnlyAsLastSegment", ".netrc/readme", false},
        ProtectedCase{"PemLower", "id.pem", true},
        ProtectedCase{"KeyUpper", "home/id_ed25519.KEY", true},
        ProtectedCase{"P12Mixed", "certs/a.P12", true},
        ProtectedCase{"PfxMixed", "certs/a.pFx", true}, ProtectedCase{"BareSuffix", ".pem", true},
        ProtectedCase{"SuffixNotLast", "app/env.pem.txt", false},
        ProtectedCase{"KeyDirectoryIsNotAKey", "x.key/readme", false},
        ProtectedCase{"SuffixWithoutDot", "monkey", false},
        ProtectedCase{"TrailingSlashIgnored", "app/.env/", true},
        ProtectedCase{"DoubledSlashes", "a//.ssh//x", true}, ProtectedCase{"Empty", "", false},
        ProtectedCase{"Ordinary", "docs/readme.md", false}),
    [](const auto& info) { return info.param.name; });

TEST(ProtectedName, OnlyTheLastSegmentRules) {
    EXPECT_TRUE(isProtectedName(".env.production"));
    EXPECT_TRUE(isProtectedName("server.Key"));
    EXPECT_FALSE(isProtectedName(".ssh")); // a directory rule, not a name rule
    EXPECT_FALSE(isProtectedName("notes.txt"));
}

} // namespace
} // namespace tovel::serve
