// Placeholder until this command is built: it fails with a named error.
#include "cli/commands/preflight.hpp"

namespace tovel {

CommandResult runPreflight(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
