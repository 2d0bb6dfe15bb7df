// Session ids, the runtime directory's choice and creation, session paths.
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <ostream>

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace tovel {
namespace {

// Sets the three variables for one test and restores a clean cache.
class RuntimeDirTest : public testing::Test {
  protected:
    void SetUp() override { resetRuntimeDirForTesting(); }
    void TearDown() override {
        for (const char* name : {"TOVEL_PTYD_DIR", "XDG_RUNTIME_DIR", "TMPDIR"})
            ::unsetenv(name);
        resetRuntimeDirForTesting();
    }
    static void set(const char* name, const char* value) {
        if (value)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    }
};

struct ChoiceCase {
    const char* tovel;
    const char* xdg;
    const char* tmp;
    std::string expected; // "" means InvalidBaseDirectory
};

void PrintTo(const ChoiceCase& c, std::ostream* os) {
    *os << (c.expected.empty() ? "invalid" : c.expected);
}

class RuntimeDirChoice : public RuntimeDirTest, public testing::WithParamInterface<ChoiceCase> {};

TEST_P(RuntimeDirChoice, FollowsTheVariables) {
    const ChoiceCase& c = GetParam();
    set("TOVEL_PTYD_DIR", c.tovel);
    set("XDG_RUNTIME_DIR", c.xdg);
    set("TMPDIR", c.tmp);
    auto chosen = chooseRuntimeDir();
    std::string expected = c.expected;
    if (auto at = expected.find("<uid>"); at != std::string::npos)
        expected.replace(at, 5, std::to_string(::getuid()));
    if (expected.empty()) {
        ASSERT_FALSE(chosen);
        EXPECT_EQ(chosen.error(), Error::InvalidBaseDirectory);
    } else {
        ASSERT_TRUE(chosen);
        EXPECT_EQ(*chosen, expected);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, RuntimeDirChoice,
    testing::Values(ChoiceCase{"/d/x", "/run/user/1", "/t", "/d/x"},
                    ChoiceCase{"rel/dir/", nullptr, nullptr, "rel/dir/"},
                    ChoiceCase{"", "/run/user/1000", nullptr, ""},
                    ChoiceCase{nullptr, "/run/user/1000", "/t", "/run/user/1000/tovel-ptyd"},
                    ChoiceCase{nullptr, "/run/user/1000/", nullptr, "/run/user/1000/tovel-ptyd"},
                    ChoiceCase{nullptr, "", "/t", ""},
                    ChoiceCase{nullptr, nullptr, nullptr, "/tmp/tovel-ptyd-<uid>"},
                    ChoiceCase{nullptr, nullptr, "/var/tmp/", "/var/tmp/tovel-ptyd-<uid>"},
                    ChoiceCase{nullptr, nullptr, "/var/tmp", "/var/tmp/tovel-ptyd-<uid>"},
                    ChoiceCase{nullptr, nullptr, "", ""}));

TEST_F(RuntimeDirTest, CreatesWithMode0700AndTightensAnExistingOne) {
    test::TempDir temp;
    std::string dir = temp.path() + "/rt";
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    set("TOVEL_PTYD_DIR", dir.c_str());
    ASSERT_EQ(runtimeDir().value(), dir);
    struct stat st {};
    ASSERT_EQ(::stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);

    // Remembered: a later change of the environment is not seen.
    set("TOVEL_PTYD_DIR", "/elsewhere");
    EXPECT_EQ(runtimeDir().value(), dir);
}

TEST_F(RuntimeDirTest, MissingParentIsFileNotFoundAndNotRemembered) {
    test::TempDir temp;
    std::string dir = temp.path() + "/no/such";
    set("TOVEL_PTYD_DIR", dir.c_str());
    EXPECT_EQ(runtimeDir().error(), Error::FileNotFound);
    std::string good = temp.path() + "/ok";
    set("TOVEL_PTYD_DIR", good.c_str());
    EXPECT_EQ(runtimeDir().value(), good);
}

TEST_F(RuntimeDirTest, TooLongPath) {
    std::string dir = "/" + std::string(4096, 'a');
    set("TOVEL_PTYD_DIR", dir.c_str());
    EXPECT_EQ(runtimeDir().error(), Error::PathTooLong);
}

TEST_F(RuntimeDirTest, SessionPathChecksIdAndJoinsOnce) {
    test::TempDir temp;
    std::string dir = temp.path() + "/";
    set("TOVEL_PTYD_DIR", dir.c_str());
    std::string id(32, 'a');
    EXPECT_EQ(sessionPath(id, ".sock").value(), temp.path() + "/" + id + ".sock");
    EXPECT_EQ(sessionPath(std::string(32, 'A'), ".sock").error(), Error::InvalidSessionId);
}

TEST(JoinPath, OneSlashBetween) {
    EXPECT_EQ(joinPath("/a", "b"), "/a/b");
    EXPECT_EQ(joinPath("/a/", "b"), "/a/b");
    EXPECT_EQ(joinPath("/a", "/b"), "/a/b");
    EXPECT_EQ(joinPath("/a/", "/b"), "/a/b");
}

TEST(SessionId, ValidationAndGeneration) {
    EXPECT_TRUE(isValidSessionId("0123456789abcdef0123456789abcdef"));
    EXPECT_FALSE(isValidSessionId("0123456789ABCDEF0123456789abcdef"));
    EXPECT_FALSE(isValidSessionId(std::string(31, 'a')));
    EXPECT_FALSE(isValidSessionId(std::string(33, 'a')));
    EXPECT_FALSE(isValidSessionId("0123456789abcdeg0123456789abcdef"));
    std::string first = newSessionId().value();
    EXPECT_TRUE(isValidSessionId(first));
    EXPECT_NE(first, newSessionId().value());
    EXPECT_EQ(hexEncode("\x01\xab\xff"), "01abff");
}

} // namespace
} // namespace tovel
