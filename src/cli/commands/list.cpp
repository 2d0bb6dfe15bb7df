// The `list` command: its arguments, then one line or one JSON object per
// live session.
#include "cli/commands/list.hpp"

#include "cli/commands/session_listing.hpp"

#include <algorithm>

namespace tovel {

namespace {

CommandResult listSessions(OutputFormat format) {
    std::vector<SessionEntry> sessions = TRY(enumerateLiveSessions());
    if (format == OutputFormat::Json) {
        JsonWriter json;
        json.beginObject();
        json.key("protocol_version");
        json.number(1);
        json.key("sessions");
        json.beginArray();
        for (const auto& entry : sessions)
            writeSessionJson(json, entry);
        json.endArray();
        json.endObject();
        printStdout(json.text() + "\n");
        return kExitSuccess;
    }
    std::string text;
    for (const auto& entry : sessions) {
        text.append(entry.id);
        if (!entry.metadataBytes.empty()) {
            // The record's lines flattened into words after the id.
            std::string flattened = entry.metadataBytes;
            std::replace(flattened.begin(), flattened.end(), '\n', ' ');
            text.append(" ").append(flattened);
        }
        text.append("\n");
    }
    printStdout(text);
    return kExitSuccess;
}

} // namespace

CommandResult runList(Args args) {
    bool json = false;
    bool dirSeen = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            if (json)
                return reportInvalidArguments("list", Error::DuplicateOption);
            json = true;
        } else if (args[i] == "--dir") {
            if (auto dir = takeDirOption(args, i, dirSeen); !dir)
                return reportInvalidArguments("list", dir.error());
        } else {
            return reportInvalidArguments("list", Error::UnknownOption);
        }
    }
    return listSessions(json ? OutputFormat::Json : OutputFormat::Text);
}

} // namespace tovel
