// Placeholder until this command is built: it fails with a named error.
#include "cli/commands/inspect.hpp"

namespace tovel {

CommandResult runInspect(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
