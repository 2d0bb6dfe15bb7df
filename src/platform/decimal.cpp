// Number text.
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

int hexDigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace tovel
