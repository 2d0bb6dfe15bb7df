// Spawn-option parsing and portable-metadata validation.
#include "cli/spawn_options.hpp"

#include <gtest/gtest.h>

#include <ostream>

#include <string>
#include <vector>

namespace tovel {
namespace {

constexpr const char* kUuid = "0123abcd-0123-4567-89ab-0123456789ab";
constexpr const char* kUuid2 = "ffffffff-0000-1111-2222-333333333333";

Result<SpawnOptions> parse(std::vector<std::string_view> args, OptionSet allowed = OptionSet::All) {
    return parseSpawnOptions(args, allowed);
}

TEST(SpawnOptions, DefaultsWithoutOptions) {
    auto options = parse({});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->cols, 80);
    EXPECT_EQ(options->rows, 24);
    EXPECT_TRUE(options->cmd.empty());
    EXPECT_TRUE(options->cwd.empty());
    EXPECT_TRUE(options->portable.empty());
}

TEST(SpawnOptions, ReadsEveryOption) {
    auto options = parse({"--cols",
                          "1_000",
                          "--rows",
                          "+50",
                          "--cmd",
                          "htop",
                          "--cwd",
                          "/tmp",
                          "--workspace-id",
                          kUuid,
                          "--replica-id",
                          kUuid2,
                          "--lease-generation",
                          "0",
                          "--migration-id",
                          kUuid,
                          "--agent-kind",
                          "Agent_1.x",
                          "--adapter-id",
                          "a-b+c",
                          "--dir",
                          "/x"});
    ASSERT_TRUE(options) << errorName(options.error());
    EXPECT_EQ(options->cols, 1000);
    EXPECT_EQ(options->rows, 50);
    EXPECT_EQ(options->cmd, "htop");
    EXPECT_EQ(options->cwd, "/tmp");
    EXPECT_EQ(options->portable.leaseGeneration, 0u);
    EXPECT_EQ(options->portable.agentKind, "Agent_1.x");
}

struct RefusedCase {
    std::vector<std::string_view> args;
    OptionSet allowed;
    Error error;
};

void PrintTo(const RefusedCase& c, std::ostream* os) {
    for (auto arg : c.args)
        *os << arg << ' ';
}

class RefusedOptions : public testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedOptions, FailWithTheirName) {
    auto options = parse(GetParam().args, GetParam().allowed);
    ASSERT_FALSE(options);
    EXPECT_EQ(options.error(), GetParam().error);
}

const std::string kLongName(129, 'a');

INSTANTIATE_TEST_SUITE_P(
    Table, RefusedOptions,
    testing::Values(
        RefusedCase{{"--cols", "0"}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--cols", "65536"}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--cols", "-0"}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--cols", "--rows"}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--cols", "--dir", "/x"}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--cols"}, OptionSet::All, Error::MissingOptionValue},
        RefusedCase{{"--json"}, OptionSet::All, Error::UnknownOption},
        RefusedCase{{"word", "x"}, OptionSet::All, Error::UnknownOption},
        RefusedCase{{"--cols", "1", "--cols", "x"}, OptionSet::All, Error::DuplicateOption},
        RefusedCase{{"--cmd", ""}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--dir", "rel"}, OptionSet::All, Error::InvalidDirectory},
        RefusedCase{{"--dir", ""}, OptionSet::All, Error::InvalidDirectory},
        RefusedCase{{"--cmd", "x"}, OptionSet::DimensionsOnly, Error::UnknownOption},
        RefusedCase{{"--cmd"}, OptionSet::DimensionsOnly, Error::MissingOptionValue},
        RefusedCase{{"--workspace-id", kUuid, "--replica-id", kUuid2},
                    OptionSet::All,
                    Error::InvalidOptionValue},
        RefusedCase{{"--agent-kind", "x"}, OptionSet::All, Error::InvalidOptionValue},
        RefusedCase{{"--lease-generation", "x"}, OptionSet::All, Error::InvalidOptionValue}));

TEST(SpawnOptions, DimensionsOnlyAcceptsDir) {
    auto options = parse({"--dir", "/x", "--cols", "100"}, OptionSet::DimensionsOnly);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->cols, 100);
}

struct PortableCase {
    PortableMetadata metadata;
    std::optional<Error> error;
};

void PrintTo(const PortableCase& c, std::ostream* os) {
    *os << (c.error ? errorName(*c.error) : "ok");
}

class PortableValidation : public testing::TestWithParam<PortableCase> {};

TEST_P(PortableValidation, ChecksInOrder) {
    auto result = validatePortableMetadata(GetParam().metadata);
    if (!GetParam().error) {
        EXPECT_TRUE(result) << errorName(result.error());
    } else {
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error(), *GetParam().error);
    }
}

PortableMetadata full() {
    return {kUuid, kUuid2, 7, "", "", ""};
}
PortableMetadata with(void (*change)(PortableMetadata&)) {
    PortableMetadata m = full();
    change(m);
    return m;
}

INSTANTIATE_TEST_SUITE_P(
    Table, PortableValidation,
    testing::Values(
        PortableCase{{}, std::nullopt}, PortableCase{full(), std::nullopt},
        PortableCase{{"", "", 3, "", "", ""}, Error::IncompleteLeaseMetadata},
        PortableCase{{"", "", std::nullopt, "", "k", ""}, Error::IncompleteLeaseMetadata},
        PortableCase{{kUuid, "", 1, "", "", ""}, Error::IncompleteLeaseMetadata},
        PortableCase{{kUuid, kUuid2, std::nullopt, "", "", ""}, Error::IncompleteLeaseMetadata},
        PortableCase{with([](PortableMetadata& m) {
                         m.workspaceId = "0123ABCD-0123-4567-89ab-0123456789ab";
                     }),
                     Error::InvalidWorkspaceId},
        PortableCase{with([](PortableMetadata& m) {
                         m.workspaceId = "0123abcd012345678"
                                         "9ab0123456789ab";
                     }),
                     Error::InvalidWorkspaceId},
        PortableCase{with([](PortableMetadata& m) { m.replicaId = "x"; }), Error::InvalidReplicaId},
        PortableCase{with([](PortableMetadata& m) { m.migrationId = "x"; }),
                     Error::InvalidMigrationId},
        PortableCase{with([](PortableMetadata& m) { m.agentKind = "a/b"; }),
                     Error::InvalidAgentKind},
        PortableCase{with([](PortableMetadata& m) { m.agentKind = "a b"; }),
                     Error::InvalidAgentKind},
        PortableCase{with([](PortableMetadata& m) { m.agentKind = std::string(129, 'a'); }),
                     Error::InvalidAgentKind},
        PortableCase{with([](PortableMetadata& m) { m.agentKind = std::string(128, 'a'); }),
                     std::nullopt},
        PortableCase{with([](PortableMetadata& m) { m.adapterId = "é"; }), Error::InvalidAdapterId},
        PortableCase{with([](PortableMetadata& m) {
                         m.workspaceId = "bad";
                         m.adapterId = "bad id";
                     }),
                     Error::InvalidWorkspaceId}));

} // namespace
} // namespace tovel
