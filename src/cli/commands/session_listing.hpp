// The live sessions of the runtime directory, as list and inspect show them:
// enumeration by socket liveness at either address, each session's
// metadata, and the session JSON object.
#pragma once

#include "cli/json_writer.hpp"
#include "cli/session_metadata.hpp"

#include <string>
#include <vector>

namespace tovel {

struct SessionEntry {
    std::string id;
    std::string metadataBytes; // at most 16384 bytes of "<id>.meta"
    MetadataRecord record;
};

// Live sessions in directory order. Never creates the runtime directory; a
// missing one has no sessions. A base path that cannot be used (or a
// directory of another user) is an error, not an empty listing.
[[nodiscard]] Result<std::vector<SessionEntry>> enumerateLiveSessions();

// The session object, keys in their published order.
void writeSessionJson(JsonWriter& json, const SessionEntry& entry);

} // namespace tovel
