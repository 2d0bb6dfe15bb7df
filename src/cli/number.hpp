// The one decimal number parser of the command line, the keeper's arguments
// and the metadata reader: an optional "+", digits with "_" allowed between
// digits, and "-" only before an all-zero value (it reads as 0). Errors are
// InvalidCharacter (malformed or empty) and Overflow (out of range).
#pragma once

#include "platform/result.hpp"

#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

namespace tovel {

namespace number_detail {

// Accumulates the digits of `text` (sign already removed) as a magnitude.
// Returns InvalidCharacter for a bad shape, Overflow beyond `limit`.
Result<std::uint64_t> parseMagnitude(std::string_view text, std::uint64_t limit);

} // namespace number_detail

template <typename T> [[nodiscard]] Result<T> parseNumber(std::string_view text) {
    static_assert(std::is_integral_v<T>);
    bool negative = false;
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        negative = text[0] == '-';
        text.remove_prefix(1);
    }
    using Limits = std::numeric_limits<T>;
    std::uint64_t limit = negative ? (Limits::is_signed ? std::uint64_t(Limits::max()) + 1 : 0)
                                   : std::uint64_t(Limits::max());
    std::uint64_t magnitude = TRY(number_detail::parseMagnitude(text, limit));
    if (!negative || magnitude == 0)
        return static_cast<T>(magnitude);
    if constexpr (Limits::is_signed)
        return static_cast<T>(-static_cast<std::int64_t>(magnitude - 1) - 1);
    return T{0};
}

} // namespace tovel
