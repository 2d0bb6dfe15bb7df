// Decimal text of integers, the one formatter every module shares.
#pragma once

#include <cstdint>
#include <string>

namespace tovel {

void appendDecimal(std::string& out, std::uint64_t value);
void appendSignedDecimal(std::string& out, std::int64_t value);
[[nodiscard]] std::string decimal(std::uint64_t value);

} // namespace tovel
