// Placeholder until this command is built: it fails with a named error.
#include "client/attach.hpp"

namespace tovel {

CommandResult attachSession(std::string_view, const PortableMetadata&) {
    return fail(Error::OperationNotSupported);
}

} // namespace tovel
