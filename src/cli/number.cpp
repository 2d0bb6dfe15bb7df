// Digit accumulation for parseNumber.
#include "cli/number.hpp"

namespace tovel::number_detail {

Result<std::uint64_t> parseMagnitude(std::string_view text, std::uint64_t limit) {
    if (text.empty() || text.front() == '_' || text.back() == '_')
        return fail(Error::InvalidCharacter);
    std::uint64_t value = 0;
    for (char c : text) {
        if (c == '_')
            continue;
        if (c < '0' || c > '9')
            return fail(Error::InvalidCharacter);
        std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (digit > limit || value > (limit - digit) / 10)
            return fail(Error::Overflow);
        value = value * 10 + digit;
    }
    return value;
}

} // namespace tovel::number_detail
