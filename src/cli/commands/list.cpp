// Placeholder until this command is built: it fails with a named error.
#include "cli/commands/list.hpp"

namespace tovel {

CommandResult listSessions(OutputFormat) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
