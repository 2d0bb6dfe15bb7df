// The process environment.
#pragma once

#include "platform/result.hpp"

#include <optional>
#include <string_view>

namespace tovel::sys {

// The value of the first entry named `name`; nullopt when there is none.
[[nodiscard]] std::optional<std::string_view> getEnv(std::string_view name);
[[nodiscard]] Result<> setEnv(std::string_view name, std::string_view value);
[[nodiscard]] Result<> unsetEnv(std::string_view name);

} // namespace tovel::sys
