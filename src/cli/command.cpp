// The shared argument-error report.
#include "cli/command.hpp"

#include "cli/log.hpp"
#include "platform/system.hpp"

namespace tovel {

void printStdout(std::string_view text) {
    (void)sys::writeAll(1, text);
}

int reportInvalidArguments(std::string_view command, Error error) {
    printStderr(command, ": invalid arguments (", error, ")\n");
    return kExitUsage;
}

} // namespace tovel
