// Placeholder until this command is built: it fails with a named error.
#include "keeper/launcher.hpp"

namespace tovel {

Result<LaunchOutcome> launchKeeper(std::string_view, const SpawnOptions&) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
