// The shared argument-error report.
#include "cli/command.hpp"

#include "cli/log.hpp"

namespace tovel {

int reportInvalidArguments(std::string_view command, Error error) {
    printStderr(command, ": invalid arguments (", error, ")\n");
    return kExitUsage;
}

} // namespace tovel
