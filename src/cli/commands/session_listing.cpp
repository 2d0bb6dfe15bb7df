// Enumerating live sessions (by their socket files and by the abstract names
// their keepers hold) and describing them as JSON.
#include "cli/commands/session_listing.hpp"

#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "client/protocol/session_address.hpp"
#include "keeper/session_lock.hpp"
#include "platform/directory.hpp"
#include "platform/system.hpp"
#include "platform/unix_socket_table.hpp"

#include <algorithm>

namespace tovel {

namespace {

constexpr std::string_view kSocketSuffix = ".sock";

bool sessionAnswers(const std::string& directory, std::string_view id) {
    return connectSessionIn(directory, id).has_value();
}

// A socket that refuses may belong to a keeper that is still starting (its
// lock is held) or to one that died: only a free lock proves the files
// stale, and then they are removed so they cannot mislead anyone.
bool isLive(const std::string& directory, std::string_view id) {
    std::string base = joinPath(directory, id);
    std::string socketPath = base + ".sock";
    if (sessionAnswers(directory, id))
        return true;
    auto lock = probeLockFile(base + ".lock");
    if (sessionAnswers(directory, id))
        return true;
    if (lock && *lock == LockState::Free) {
        (void)sys::unlink(socketPath);
        (void)sys::unlink(base + ".meta");
    }
    return false;
}

std::optional<std::string> sessionIdOf(std::string_view name) {
    if (!name.ends_with(kSocketSuffix))
        return std::nullopt;
    name.remove_suffix(kSocketSuffix.size());
    if (!isValidSessionId(name))
        return std::nullopt;
    return std::string(name);
}

// Session ids whose keeper holds its abstract name, in the kernel's order:
// they are live even when the directory lost their files.
std::vector<std::string> abstractSessionIds(const std::string& directory) {
    std::string prefix = abstractNamePrefix(directory);
    auto names = sys::listeningAbstractNames(prefix);
    std::vector<std::string> ids;
    for (const std::string& name : names.value_or(std::vector<std::string>())) {
        std::string_view id = std::string_view(name).substr(prefix.size());
        if (isValidSessionId(id))
            ids.emplace_back(id);
    }
    return ids;
}

SessionEntry describeSession(const std::string& directory, std::string id) {
    SessionEntry entry;
    entry.id = std::move(id);
    // A keeper that cannot rewrite its metadata file yet is listed with
    // metadata_ok false.
    auto bytes = readMetadataBytes(joinPath(directory, entry.id) + ".meta");
    if (bytes) {
        entry.metadataBytes = std::move(*bytes);
        entry.record = parseSessionMetadata(entry.metadataBytes);
    }
    return entry;
}

} // namespace

Result<std::vector<SessionEntry>> enumerateLiveSessions() {
    std::vector<SessionEntry> sessions;
    // A removed directory still leaves the keepers' abstract names to find.
    auto existing = TRY(existingRuntimeDir());
    std::string directory = existing ? std::move(*existing) : TRY(chooseRuntimeDir());
    std::vector<std::string> candidates;
    if (auto reader =
            existing ? sys::DirectoryReader::open(directory) : fail(Error::FileNotFound)) {
        for (;;) {
            auto entry = reader->next();
            if (!entry || !*entry)
                break;
            if (auto id = sessionIdOf((*entry)->name))
                candidates.push_back(std::move(*id));
        }
    }
    std::vector<std::string> abstractOnly;
    for (auto& id : abstractSessionIds(directory)) {
        if (std::find(candidates.begin(), candidates.end(), id) == candidates.end())
            abstractOnly.push_back(std::move(id));
    }
    for (auto& id : candidates) {
        if (isLive(directory, id))
            sessions.push_back(describeSession(directory, std::move(id)));
    }
    for (auto& id : abstractOnly) {
        if (sessionAnswers(directory, id))
            sessions.push_back(describeSession(directory, std::move(id)));
    }
    return sessions;
}

void writeSessionJson(JsonWriter& json, const SessionEntry& entry) {
    // A record that failed to parse carries nothing.
    static const SessionMetadata kNothing;
    const SessionMetadata& m = entry.record.ok ? entry.record.metadata : kNothing;
    auto text = [](const std::string& value) {
        return value.empty() ? std::optional<std::string>() : std::optional<std::string>(value);
    };
    auto wide = [](const auto& value) {
        return value ? std::optional<std::int64_t>(*value) : std::optional<std::int64_t>();
    };
    json.beginObject();
    json.key("protocol_version");
    json.number(1);
    json.key("session_id");
    json.string(entry.id);
    json.key("workspace_id");
    json.optionalString(text(m.portable.workspaceId));
    json.key("replica_id");
    json.optionalString(text(m.portable.replicaId));
    json.key("lease_generation");
    if (m.portable.leaseGeneration)
        json.unsignedNumber(*m.portable.leaseGeneration);
    else
        json.null();
    json.key("migration_id");
    json.optionalString(text(m.portable.migrationId));
    json.key("agent_kind");
    json.optionalString(text(m.portable.agentKind));
    json.key("adapter_id");
    json.optionalString(text(m.portable.adapterId));
    json.key("label");
    json.null();
    json.key("kind");
    json.string("shell");
    json.key("cwd");
    json.optionalString(m.cwd);
    json.key("started_at");
    json.optionalNumber(wide(m.startedAt));
    json.key("last_attached_at");
    json.optionalNumber(wide(m.lastAttachedAt));
    json.key("process_state");
    json.string("running");
    json.key("metadata_ok");
    json.boolean(entry.record.ok);
    json.key("keeper_pid");
    json.optionalNumber(wide(m.keeperPid));
    json.key("shell_pid");
    json.optionalNumber(wide(m.shellPid));
    json.key("columns");
    json.optionalNumber(wide(m.cols));
    json.key("rows");
    json.optionalNumber(wide(m.rows));
    json.endObject();
}

} // namespace tovel
