// Formatting, parsing, writing and reading the metadata record.
#include "cli/session_metadata.hpp"
#include "platform/decimal.hpp"

#include "cli/number.hpp"
#include "cli/session_id.hpp"
#include "cli/spawn_options.hpp"
#include "platform/system.hpp"

#include <charconv>
#include <fcntl.h>

namespace tovel {

namespace {

template <typename T> void appendLine(std::string& out, std::string_view key, T value) {
    out.append(key);
    out.push_back('=');
    if constexpr (std::is_signed_v<T>)
        appendSignedDecimal(out, value);
    else
        appendDecimal(out, value);
    out.push_back('\n');
}

void appendText(std::string& out, std::string_view key, std::string_view value) {
    if (value.empty())
        return;
    out.append(key);
    out.push_back('=');
    out.append(value);
    out.push_back('\n');
}

std::optional<std::string> decodeCwdHex(std::string_view hex) {
    if (hex.size() % 2 != 0 || hex.size() > 2 * kMaxMetadataCwd)
        return std::nullopt;
    std::string out;
    out.reserve(hex.size() / 2);
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        int high = hexDigitValue(hex[i]);
        int low = hexDigitValue(hex[i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        out.push_back(static_cast<char>(high << 4 | low));
    }
    return out;
}

bool isMetadataUuid(std::string_view text) {
    return text.size() == kUuidTextLength && text[8] == '-' && text[13] == '-' && text[18] == '-' &&
           text[23] == '-';
}

template <typename T> bool readNumber(std::string_view value, std::optional<T>& field) {
    auto parsed = parseNumber<T>(value);
    if (!parsed)
        return false;
    field = *parsed;
    return true;
}

} // namespace

Result<std::string> formatSessionMetadata(const SessionMetadata& m) {
    std::string out;
    appendLine(out, "keeper_pid", m.keeperPid.value_or(0));
    appendLine(out, "shell_pid", m.shellPid.value_or(0));
    appendLine(out, "cols", m.cols.value_or(0));
    appendLine(out, "rows", m.rows.value_or(0));
    appendLine(out, "started_at", m.startedAt.value_or(0));
    appendLine(out, "last_attached_at", m.lastAttachedAt.value_or(0));
    std::string_view cwd = m.cwd ? std::string_view(*m.cwd) : std::string_view();
    out.append("cwd_hex=");
    out.append(hexEncode(cwd.substr(0, kMaxMetadataCwd)));
    out.push_back('\n');
    const PortableMetadata& p = m.portable;
    appendText(out, "workspace_id", p.workspaceId);
    appendText(out, "replica_id", p.replicaId);
    if (p.leaseGeneration)
        appendLine(out, "lease_generation", *p.leaseGeneration);
    appendText(out, "migration_id", p.migrationId);
    appendText(out, "agent_kind", p.agentKind);
    appendText(out, "adapter_id", p.adapterId);
    if (out.size() > kMaxMetadataSize)
        return fail(Error::MetadataTooLarge);
    return out;
}

MetadataRecord parseSessionMetadata(std::string_view text) {
    MetadataRecord record;
    SessionMetadata& m = record.metadata;
    bool bad = false;
    bool sawKeeperPid = false;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        std::size_t equals = line.find('=');
        if (equals == std::string_view::npos)
            continue;
        std::string_view key = line.substr(0, equals);
        std::string_view value = line.substr(equals + 1);
        bool good = true;
        if (key == "keeper_pid") {
            std::optional<std::int32_t> pid;
            good = readNumber(value, pid);
            if (good)
                m.keeperPid = *pid;
            sawKeeperPid = true;
        } else if (key == "shell_pid") {
            std::optional<std::int32_t> pid;
            good = readNumber(value, pid);
            if (good)
                m.shellPid = *pid;
        } else if (key == "cols") {
            good = readNumber(value, m.cols);
        } else if (key == "rows") {
            good = readNumber(value, m.rows);
        } else if (key == "started_at") {
            good = readNumber(value, m.startedAt);
        } else if (key == "last_attached_at") {
            good = readNumber(value, m.lastAttachedAt);
        } else if (key == "cwd_hex") {
            m.cwd = decodeCwdHex(value);
            good = m.cwd.has_value();
        } else if (key == "workspace_id" || key == "replica_id" || key == "migration_id") {
            good = isMetadataUuid(value);
            if (good) {
                std::string& field = key == "workspace_id" ? m.portable.workspaceId
                                     : key == "replica_id" ? m.portable.replicaId
                                                           : m.portable.migrationId;
                field = std::string(value);
            }
        } else if (key == "lease_generation") {
            good = readNumber(value, m.portable.leaseGeneration);
        } else if (key == "agent_kind" || key == "adapter_id") {
            good = hasOnlyNameCharacters(value);
            if (good)
                (key == "agent_kind" ? m.portable.agentKind : m.portable.adapterId) =
                    std::string(value);
        }
        bad = bad || !good;
    }
    record.ok = sawKeeperPid && !bad && validatePortableMetadata(m.portable).has_value();
    return record;
}

namespace {

// A fresh file: whatever was left at `path` (a crashed write, a link) is
// removed, not reused.
Result<> writeNewFile(std::string_view path, std::string_view text) {
    (void)sys::unlink(path);
    UniqueFd fd = TRY(sys::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    return sys::writeAll(fd.get(), text);
}

} // namespace

Result<> writeSessionMetadata(std::string_view path, const SessionMetadata& metadata) {
    std::string text = TRY(formatSessionMetadata(metadata));
    // Readers poll this file while attaches rewrite it: they must see the
    // old record or the new one, never a truncated one.
    std::string temporary = std::string(path) + ".tmp";
    auto written = writeNewFile(temporary, text);
    if (written)
        written = sys::rename(temporary, path);
    if (!written)
        (void)sys::unlink(temporary);
    return written;
}

Result<std::string> readMetadataBytes(std::string_view path) {
    UniqueFd fd = TRY(sys::open(path, O_RDONLY | O_NOFOLLOW));
    std::string bytes(kMaxMetadataSize, '\0');
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        std::size_t got = TRY(sys::read(fd.get(), std::span(bytes).subspan(filled)));
        if (got == 0)
            break;
        filled += got;
    }
    bytes.resize(filled);
    return bytes;
}

} // namespace tovel
