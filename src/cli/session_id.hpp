// Session ids: 32 lowercase hexadecimal characters, random for `new`.
#pragma once

#include "platform/result.hpp"

#include <string>
#include <string_view>

namespace tovel {

constexpr std::size_t kSessionIdLength = 32;

[[nodiscard]] bool isValidSessionId(std::string_view text);

// 16 bytes from the kernel's secure random source as 32 lowercase hex digits.
[[nodiscard]] Result<std::string> newSessionId();

// Lowercase hexadecimal of `bytes`, two digits per byte, high nibble first.
[[nodiscard]] std::string hexEncode(std::string_view bytes);

} // namespace tovel
