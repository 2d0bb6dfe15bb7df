// Environment lookups walk `environ` directly so that the first entry of a
// name wins and a present-but-empty value is told apart from a missing one.
#include "platform/env.hpp"

#include "platform/system.hpp"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace tovel::sys {

std::optional<std::string_view> getEnv(std::string_view name) {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        if (text.size() > name.size() && text.starts_with(name) && text[name.size()] == '=')
            return text.substr(name.size() + 1);
    }
    return std::nullopt;
}

Result<> setEnv(std::string_view name, std::string_view value) {
    if (::setenv(cString(name).c_str(), cString(value).c_str(), 1) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

Result<> unsetEnv(std::string_view name) {
    if (::unsetenv(cString(name).c_str()) != 0)
        return fail(errorFromErrno(errno));
    return {};
}

} // namespace tovel::sys
