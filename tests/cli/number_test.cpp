// The decimal number rule shared by options, keeper arguments and metadata.
#include "cli/number.hpp"

#include <gtest/gtest.h>

#include <ostream>

namespace tovel {
namespace {

struct NumberCase {
    const char* text;
    std::optional<std::uint16_t> value; // nullopt: refused
    Error error = Error::InvalidCharacter;
};

void PrintTo(const NumberCase& c, std::ostream* os) {
    *os << "'" << c.text << "'";
}

class U16Number : public testing::TestWithParam<NumberCase> {};

TEST_P(U16Number, ParsesOrRefuses) {
    const NumberCase& c = GetParam();
    auto parsed = parseNumber<std::uint16_t>(c.text);
    if (c.value) {
        ASSERT_TRUE(parsed.has_value()) << c.text << " -> " << errorName(parsed.error());
        EXPECT_EQ(*parsed, *c.value);
    } else {
        ASSERT_FALSE(parsed.has_value()) << c.text << " -> " << *parsed;
        EXPECT_EQ(parsed.error(), c.error) << c.text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, U16Number,
    testing::Values(NumberCase{"80", 80}, NumberCase{"0", 0}, NumberCase{"+80", 80},
                    NumberCase{"1_000", 1000}, NumberCase{"1__0", 10}, NumberCase{"65535", 65535},
                    NumberCase{"65536", std::nullopt, Error::Overflow},
                    NumberCase{"99999999999999999999", std::nullopt, Error::Overflow},
                    NumberCase{"-0", 0}, NumberCase{"-000", 0}, NumberCase{"-0_0", 0},
                    NumberCase{"-1", std::nullopt, Error::Overflow}, NumberCase{"", std::nullopt},
                    NumberCase{"+", std::nullopt}, NumberCase{"-", std::nullopt},
                    NumberCase{"_1", std::nullopt}, NumberCase{"1_", std::nullopt},
                    NumberCase{"+_1", std::nullopt}, NumberCase{"1a", std::nullopt},
                    NumberCase{" 1", std::nullopt}, NumberCase{"0x10", std::nullopt},
                    NumberCase{"++1", std::nullopt}, NumberCase{"+-1", std::nullopt}));

TEST(Number, WidthsAndSigns) {
    EXPECT_EQ(parseNumber<std::uint64_t>("18446744073709551615").value(), UINT64_MAX);
    EXPECT_EQ(parseNumber<std::uint64_t>("18446744073709551616").error(), Error::Overflow);
    EXPECT_EQ(parseNumber<std::int32_t>("-5").value(), -5);
    EXPECT_EQ(parseNumber<std::int32_t>("-2147483648").value(), INT32_MIN);
    EXPECT_EQ(parseNumber<std::int32_t>("2147483648").error(), Error::Overflow);
    EXPECT_EQ(parseNumber<std::int32_t>("-2147483649").error(), Error::Overflow);
    EXPECT_EQ(parseNumber<std::int32_t>("").error(), Error::InvalidCharacter);
}

} // namespace
} // namespace tovel
