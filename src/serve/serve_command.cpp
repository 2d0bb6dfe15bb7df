// Placeholder until this command is built: it fails with a named error.
#include "serve/serve_command.hpp"

namespace tovel {

CommandResult runServe(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
