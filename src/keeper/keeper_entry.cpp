// Placeholder until this command is built: it fails with a named error.
#include "keeper/keeper_entry.hpp"

namespace tovel {

CommandResult runKeeperEntry(Args) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
