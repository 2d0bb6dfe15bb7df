// Spawn-option parsing and portable-metadata validation.
#include "cli/spawn_options.hpp"

#include "cli/number.hpp"

#include <array>

namespace tovel {

namespace {

enum class Option {
    Cmd,
    Cwd,
    Dir,
    WorkspaceId,
    MigrationId,
    Cols,
    Rows,
    ReplicaId,
    LeaseGeneration,
    AgentKind,
    AdapterId,
    Count
};

struct OptionName {
    std::string_view name;
    Option option;
};

constexpr std::array<OptionName, 11> kOptions{{
    {"--cmd", Option::Cmd},
    {"--cwd", Option::Cwd},
    {"--dir", Option::Dir},
    {"--workspace-id", Option::WorkspaceId},
    {"--migration-id", Option::MigrationId},
    {"--cols", Option::Cols},
    {"--rows", Option::Rows},
    {"--replica-id", Option::ReplicaId},
    {"--lease-generation", Option::LeaseGeneration},
    {"--agent-kind", Option::AgentKind},
    {"--adapter-id", Option::AdapterId},
}};

std::optional<Option> lookup(std::string_view arg) {
    for (const auto& entry : kOptions) {
        if (entry.name == arg)
            return entry.option;
    }
    return std::nullopt;
}

Result<std::uint16_t> parseDimension(std::string_view value) {
    auto parsed = parseNumber<std::uint16_t>(value);
    if (!parsed || *parsed == 0)
        return fail(Error::InvalidOptionValue);
    return *parsed;
}

} // namespace

bool isUuidText(std::string_view text) {
    if (text.size() != kUuidTextLength)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-')
                return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

bool isNameText(std::string_view text) {
    return !text.empty() && text.size() <= kMaxNameTextLength && hasOnlyNameCharacters(text);
}

bool hasOnlyNameCharacters(std::string_view text) {
    for (char c : text) {
        bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '+' || c == '-' || c == '.' || c == '_';
        if (!allowed)
            return false;
    }
    return true;
}

Result<> validatePortableMetadata(const PortableMetadata& m) {
    if (m.workspaceId.empty() && m.replicaId.empty()) {
        if (!m.leaseGeneration && m.migrationId.empty() && m.agentKind.empty() &&
            m.adapterId.empty())
            return {};
        return fail(Error::IncompleteLeaseMetadata);
    }
    if (m.workspaceId.empty() || m.replicaId.empty() || !m.leaseGeneration)
        return fail(Error::IncompleteLeaseMetadata);
    if (!isUuidText(m.workspaceId))
        return fail(Error::InvalidWorkspaceId);
    if (!isUuidText(m.replicaId))
        return fail(Error::InvalidReplicaId);
    if (!m.migrationId.empty() && !isUuidText(m.migrationId))
        return fail(Error::InvalidMigrationId);
    if (!m.agentKind.empty() && !isNameText(m.agentKind))
        return fail(Error::InvalidAgentKind);
    if (!m.adapterId.empty() && !isNameText(m.adapterId))
        return fail(Error::InvalidAdapterId);
    return {};
}

Result<SpawnOptions> parseSpawnOptions(std::span<const std::string_view> args, OptionSet allowed) {
    SpawnOptions options;
    std::array<bool, static_cast<std::size_t>(Option::Count)> seen{};
    for (std::size_t i = 0; i < args.size(); i += 2) {
        auto option = lookup(args[i]);
        if (!option)
            return fail(Error::UnknownOption);
        if (i + 1 >= args.size())
            return fail(Error::MissingOptionValue);
        if (allowed == OptionSet::DimensionsOnly && *option != Option::Cols &&
            *option != Option::Rows && *option != Option::Dir)
            return fail(Error::UnknownOption);
        auto& wasSeen = seen[static_cast<std::size_t>(*option)];
        if (wasSeen)
            return fail(Error::DuplicateOption);
        wasSeen = true;
        std::string_view value = args[i + 1];
        switch (*option) {
        case Option::Cols:
            options.cols = TRY(parseDimension(value));
            break;
        case Option::Rows:
            options.rows = TRY(parseDimension(value));
            break;
        case Option::Cmd:
        case Option::Cwd:
            if (value.empty())
                return fail(Error::InvalidOptionValue);
            (*option == Option::Cmd ? options.cmd : options.cwd) = std::string(value);
            break;
        case Option::Dir:
            // Already placed in the environment by the front end's pre-scan.
            if (value.empty() || value.front() != '/')
                return fail(Error::InvalidDirectory);
            break;
        case Option::LeaseGeneration: {
            auto generation = parseNumber<std::uint64_t>(value);
            if (!generation)
                return fail(Error::InvalidOptionValue);
            options.portable.leaseGeneration = *generation;
            break;
        }
        case Option::WorkspaceId:
            options.portable.workspaceId = std::string(value);
            break;
        case Option::ReplicaId:
            options.portable.replicaId = std::string(value);
            break;
        case Option::MigrationId:
            options.portable.migrationId = std::string(value);
            break;
        case Option::AgentKind:
            options.portable.agentKind = std::string(value);
            break;
        case Option::AdapterId:
            options.portable.adapterId = std::string(value);
            break;
        case Option::Count:
            break;
        }
    }
    if (!validatePortableMetadata(options.portable))
        return fail(Error::InvalidOptionValue);
    return options;
}

} // namespace tovel
