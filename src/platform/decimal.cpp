// Decimal text of integers.
#include "platform/decimal.hpp"

#include <charconv>

namespace tovel {

void appendDecimal(std::string& out, std::uint64_t value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

void appendSignedDecimal(std::string& out, std::int64_t value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

std::string decimal(std::uint64_t value) {
    std::string text;
    appendDecimal(text, value);
    return text;
}

} // namespace tovel
