// Number text shared by every module: decimal formatting of integers and
// the value of a hexadecimal digit.
#pragma once

#include <cstdint>
#include <string>

namespace tovel {

void appendDecimal(std::string& out, std::uint64_t value);
void appendSignedDecimal(std::string& out, std::int64_t value);
[[nodiscard]] std::string decimal(std::uint64_t value);

// 0-15 for "0"-"9", "a"-"f" and "A"-"F"; -1 for anything else.
[[nodiscard]] int hexDigitValue(char c);

} // namespace tovel
