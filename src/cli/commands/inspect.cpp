// The `inspect` command: one live session, in words or as JSON.
#include "cli/commands/inspect.hpp"
#include "platform/decimal.hpp"

#include "cli/commands/session_listing.hpp"
#include "cli/log.hpp"
#include "cli/session_id.hpp"

#include <algorithm>
#include <charconv>

namespace tovel {

namespace {

struct InspectRequest {
    std::string_view id;
    OutputFormat format = OutputFormat::Text;
};

Result<InspectRequest> parseInspectArguments(Args args) {
    InspectRequest request{args[0]};
    bool sawJson = false;
    bool sawDir = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--json") {
            if (sawJson)
                return fail(Error::DuplicateOption);
            sawJson = true;
            request.format = OutputFormat::Json;
        } else if (args[i] == "--dir") {
            TRY(takeDirOption(args, i, sawDir));
        } else {
            return fail(Error::UnknownOption);
        }
    }
    return request;
}

void appendField(std::string& text, std::string_view name, const auto& value) {
    if (!value)
        return;
    text.append(" ").append(name).append("=");
    appendSignedDecimal(text, static_cast<std::int64_t>(*value));
}

} // namespace

CommandResult runInspect(Args args) {
    if (args.empty()) {
        printStderr("usage: tovel-ptyd inspect <id> [--json]\n");
        return kExitUsage;
    }
    if (!isValidSessionId(args[0])) {
        printStderr("inspect: id must be 32 lowercase-hex chars\n");
        return kExitUsage;
    }
    auto request = parseInspectArguments(args);
    if (!request)
        return reportInvalidArguments("inspect", request.error());

    std::vector<SessionEntry> sessions = TRY(enumerateLiveSessions());
    auto found = std::find_if(sessions.begin(), sessions.end(),
                              [&](const SessionEntry& entry) { return entry.id == request->id; });
    JsonWriter json;
    json.beginObject();
    json.key("protocol_version");
    json.number(1);
    if (found == sessions.end()) {
        if (request->format == OutputFormat::Text) {
            printStderr("session ", request->id, ": not running\n");
            return kExitFailure;
        }
        json.key("error");
        json.beginObject();
        json.key("code");
        json.string("session_not_found");
        json.key("session_id");
        json.string(request->id);
        json.endObject();
        json.endObject();
        printStdout(json.text() + "\n");
        return kExitFailure;
    }
    if (request->format == OutputFormat::Json) {
        json.key("session");
        writeSessionJson(json, *found);
        json.endObject();
        printStdout(json.text() + "\n");
        return kExitSuccess;
    }
    const SessionMetadata* m = found->record.ok ? &found->record.metadata : nullptr;
    std::string text(found->id);
    if (m) {
        appendField(text, "keeper_pid", m->keeperPid);
        appendField(text, "shell_pid", m->shellPid);
        appendField(text, "cols", m->cols);
        appendField(text, "rows", m->rows);
        appendField(text, "started_at", m->startedAt);
    }
    text.append("\n");
    printStdout(text);
    return kExitSuccess;
}

} // namespace tovel
