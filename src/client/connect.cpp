// Placeholder until this command is built: it fails with a named error.
#include "client/connect.hpp"

namespace tovel {

CommandResult runConnect(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
