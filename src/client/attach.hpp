// The attach client: joins the terminal to a session's keeper.
#pragma once

#include "cli/command.hpp"
#include "cli/spawn_options.hpp"

#include <string_view>

namespace tovel {

[[nodiscard]] CommandResult attachSession(std::string_view id, const PortableMetadata& portable);

} // namespace tovel
