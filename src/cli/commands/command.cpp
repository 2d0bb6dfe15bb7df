// The shared argument-error report.
#include "cli/commands/command.hpp"

#include "cli/log.hpp"
#include "client/detach_key.hpp"
#include "platform/system.hpp"

namespace tovel {

void printStdout(std::string_view text) {
    (void)sys::writeAll(1, text);
}

Result<> takeDirOption(Args args, std::size_t& i, bool& seen) {
    if (seen)
        return fail(Error::DuplicateOption);
    if (i + 1 >= args.size())
        return fail(Error::MissingOptionValue);
    if (args[i + 1].empty() || args[i + 1].front() != '/')
        return fail(Error::InvalidDirectory);
    seen = true;
    ++i;
    return {};
}

int reportInvalidArguments(std::string_view command, Error error) {
    printStderr(command, ": invalid arguments (", error, ")\n");
    return kExitUsage;
}

int reportInvalidDetachKey(std::string_view value) {
    printStderr("tovel-ptyd: ", kDetachKeyVariable, "=", value,
                " is not a control key in caret notation (for example ^\\ or ^])\n");
    return kExitUsage;
}

} // namespace tovel
