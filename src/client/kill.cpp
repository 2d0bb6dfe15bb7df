// Placeholder until this command is built: it fails with a named error.
#include "client/kill.hpp"

namespace tovel {

CommandResult runKill(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
