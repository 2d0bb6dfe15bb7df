// The decimal number rule shared by options, keeper arguments and metadata,
// spawn-option parsing and portable-metadata validation.
#include "cli/number.hpp"
#include "cli/spawn_options.hpp"

#include <gtest/gtest.h>

#include <ranges>
#include <string>
#include <vector>

namespace tovel {
namespace {

// The value read, or the name of the refusal.
template <typename T> std::string parsed(std::string_view text) {
    auto number = parseNumber<T>(text);
    return number ? std::to_string(*number) : std::string(errorName(number.error()));
}

TEST(Number, SixteenBitShapes) {
    for (const char* text : {"", "+", "-", "_1", "1_", "+_1", "1a", " 1", "0x10", "++1", "+-1"})
        EXPECT_EQ(parsed<std::uint16_t>(text), "InvalidCharacter") << "'" << text << "'";
    for (const char* text : {"65536", "-1", "99999999999999999999"})
        EXPECT_EQ(parsed<std::uint16_t>(text), "Overflow") << text;
    for (const char* text : {"0", "-0", "-000", "-0_0"})
        EXPECT_EQ(parsed<std::uint16_t>(text), "0") << text;
    EXPECT_EQ(parsed<std::uint16_t>("+80"), "80");
    EXPECT_EQ(parsed<std::uint16_t>("1_000"), "1000");
    EXPECT_EQ(parsed<std::uint16_t>("1__0"), "10");
    EXPECT_EQ(parsed<std::uint16_t>("65535"), "65535");
}

const std::string kUuid = "0123abcd-0123-4567-89ab-0123456789ab";
const std::string kUuid2 = "ffffffff-0000-1111-2222-333333333333";

Result<SpawnOptions> parse(std::vector<std::string_view> args, OptionSet allowed = OptionSet::All) {
    return parseSpawnOptions(args, allowed);
}

const char* const kEveryOption =
    "--cols 1_000 --rows +50 --cmd htop --cwd /tmp --lease-generation 0 --dir /x "
    "--workspace-id 0123abcd-0123-4567-89ab-0123456789ab --migration-id "
    "0123abcd-0123-4567-89ab-0123456789ab --replica-id ffffffff-0000-1111-2222-333333333333 "
    "--agent-kind A_1.x --adapter-id a-b+c";

TEST(SpawnOptions, ReadsEveryOption) {
    std::vector<std::string_view> args;
    for (auto word : std::views::split(std::string_view(kEveryOption), ' '))
        args.emplace_back(word.begin(), word.end());
    auto options = parse(args);
    ASSERT_TRUE(options) << errorName(options.error());
    EXPECT_EQ(options->cols, 1000);
    EXPECT_EQ(options->rows, 50);
    EXPECT_EQ(options->cmd, "htop");
    EXPECT_EQ(options->cwd, "/tmp");
    EXPECT_EQ(options->portable.leaseGeneration, 0u);
    EXPECT_EQ(options->portable.agentKind, "A_1.x");
    EXPECT_EQ(parse({"--dir", "/x", "--cols", "9"}, OptionSet::DimensionsOnly)->cols, 9);
}

// The error's name, or "ok".
template <typename T> std::string outcome(const Result<T>& result) {
    return result ? "ok" : std::string(errorName(result.error()));
}

TEST(SpawnOptions, RefusalsNameTheirCause) {
    struct Case {
        std::vector<std::string_view> args;
        Error error;
        OptionSet allowed = OptionSet::All;
    };
    const Case cases[] = {
        {{"--cols", "0"}, Error::InvalidOptionValue},
        {{"--cols", "65536"}, Error::InvalidOptionValue},
        {{"--cols", "-0"}, Error::InvalidOptionValue},
        {{"--cols", "--rows"}, Error::InvalidOptionValue},
        {{"--cols", "--dir", "/x"}, Error::InvalidOptionValue},
        {{"--cols"}, Error::MissingOptionValue},
        {{"--json"}, Error::UnknownOption},
        {{"word", "x"}, Error::UnknownOption},
        {{"--cols", "1", "--cols", "x"}, Error::DuplicateOption},
        {{"--cmd", ""}, Error::InvalidOptionValue},
        {{"--dir", "rel"}, Error::InvalidDirectory},
        {{"--dir", ""}, Error::InvalidDirectory},
        {{"--cmd", "x"}, Error::UnknownOption, OptionSet::DimensionsOnly},
        {{"--cmd"}, Error::MissingOptionValue, OptionSet::DimensionsOnly},
        {{"--workspace-id", kUuid, "--replica-id", kUuid2}, Error::InvalidOptionValue},
        {{"--agent-kind", "x"}, Error::InvalidOptionValue},
        {{"--lease-generation", "x"}, Error::InvalidOptionValue}};
    for (const Case& c : cases)
        EXPECT_EQ(outcome(parse(c.args, c.allowed)), errorName(c.error))
            << testing::PrintToString(c.args);
}

// The rules apply in a fixed order; empty fields are absent.
TEST(PortableMetadata, ValidationOrder) {
    const std::string name128(128, 'a'), name129(129, 'a');
    const std::pair<PortableMetadata, const char*> cases[] = {
        {{}, "ok"},
        {{kUuid, kUuid2, 0, "", "", ""}, "ok"},
        {{kUuid, kUuid2, 7, "", name128, ""}, "ok"},
        {{"", "", 3, "", "", ""}, "IncompleteLeaseMetadata"},
        {{"", "", std::nullopt, "", "k", ""}, "IncompleteLeaseMetadata"},
        {{kUuid, "", 1, "", "", ""}, "IncompleteLeaseMetadata"},
        {{kUuid, kUuid2, std::nullopt, "", "", ""}, "IncompleteLeaseMetadata"},
        {{"0123ABCD-0123-4567-89ab-0123456789ab", kUuid2, 7, "", "", ""}, "InvalidWorkspaceId"},
        {{"0123abcd0123456789ab0123456789ab", kUuid2, 7, "", "", ""}, "InvalidWorkspaceId"},
        {{"bad", kUuid2, 7, "", "", "bad id"}, "InvalidWorkspaceId"},
        {{kUuid, "x", 7, "", "", ""}, "InvalidReplicaId"},
        {{kUuid, kUuid2, 7, "x", "", ""}, "InvalidMigrationId"},
        {{kUuid, kUuid2, 7, "", "a/b", ""}, "InvalidAgentKind"},
        {{kUuid, kUuid2, 7, "", "a b", ""}, "InvalidAgentKind"},
        {{kUuid, kUuid2, 7, "", name129, ""}, "InvalidAgentKind"},
        {{kUuid, kUuid2, 7, "", "", "\xc3\xa9"}, "InvalidAdapterId"}};
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(outcome(validatePortableMetadata(cases[i].first)), cases[i].second) << i;
}

} // namespace
} // namespace tovel
