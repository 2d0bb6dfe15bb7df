// Bytes from the kernel's cryptographically secure random source.
#pragma once

#include "platform/result.hpp"

#include <cstddef>
#include <span>

namespace tovel::sys {

[[nodiscard]] Result<> randomBytes(std::span<std::byte> out);

} // namespace tovel::sys
