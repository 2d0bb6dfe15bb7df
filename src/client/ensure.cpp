// Placeholder until this command is built: it fails with a named error.
#include "client/ensure.hpp"

namespace tovel {

CommandResult runEnsure(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
