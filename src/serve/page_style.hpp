// The file browser's one inline style sheet and its closing script.
#pragma once

#include <string_view>

namespace tovel::serve {

extern const std::string_view kPageStyle;
extern const std::string_view kPageScript;

} // namespace tovel::serve
