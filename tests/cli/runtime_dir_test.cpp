// Session ids, the runtime directory's choice and creation, session paths.
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

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

// TOVEL_PTYD_DIR, else XDG_RUNTIME_DIR, else TMPDIR or /tmp; an empty one is
// an error, not skipped.
TEST_F(RuntimeDirTest, ChoiceFollowsTheVariables) {
    const std::string uid = std::to_string(::getuid());
    const struct {
        const char* tovel;
        const char* xdg;
        const char* tmp;
        std::string expected; // a path, or the error's name
    } cases[] = {{"/d/x", "/run/user/1", "/t", "/d/x"},
                 {"rel/dir/", nullptr, nullptr, "rel/dir/"},
                 {"", "/run/user/1000", nullptr, "InvalidBaseDirectory"},
                 {nullptr, "/run/user/1000", "/t", "/run/user/1000/tovel-ptyd"},
                 {nullptr, "/run/user/1000/", nullptr, "/run/user/1000/tovel-ptyd"},
                 {nullptr, "", "/t", "InvalidBaseDirectory"},
                 {nullptr, nullptr, nullptr, "/tmp/tovel-ptyd-" + uid},
                 {nullptr, nullptr, "/var/tmp/", "/var/tmp/tovel-ptyd-" + uid},
                 {nullptr, nullptr, "/var/tmp", "/var/tmp/tovel-ptyd-" + uid},
                 {nullptr, nullptr, "", "InvalidBaseDirectory"}};
    for (const auto& c : cases) {
        set("TOVEL_PTYD_DIR", c.tovel);
        set("XDG_RUNTIME_DIR", c.xdg);
        set("TMPDIR", c.tmp);
        auto chosen = chooseRuntimeDir();
        EXPECT_EQ(chosen ? *chosen : std::string(errorName(chosen.error())), c.expected);
    }
}

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

TEST_F(RuntimeDirTest, FailuresAreNotRemembered) {
    set("TOVEL_PTYD_DIR", ("/" + std::string(4096, 'a')).c_str());
    EXPECT_EQ(runtimeDir().error(), Error::PathTooLong);
    test::TempDir temp;
    set("TOVEL_PTYD_DIR", (temp.path() + "/no/such").c_str());
    EXPECT_EQ(runtimeDir().error(), Error::FileNotFound);
    // A trailing slash on the directory still gives one slash before the name.
    set("TOVEL_PTYD_DIR", (temp.path() + "/").c_str());
    std::string id(32, 'a');
    EXPECT_EQ(sessionPath(id, ".sock").value(), temp.path() + "/" + id + ".sock");
    EXPECT_EQ(sessionPath(std::string(32, 'A'), ".sock").error(), Error::InvalidSessionId);
}

} // namespace
} // namespace tovel
