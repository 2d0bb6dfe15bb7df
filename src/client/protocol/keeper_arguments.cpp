// Writing and reading the keeper's command line.
#include "client/protocol/keeper_arguments.hpp"

#include "cli/number.hpp"
#include "cli/session_id.hpp"
#include "platform/decimal.hpp"

#include <cstring>

namespace tovel {

namespace {

// The texts after the word, in their order.
enum Text : std::size_t {
    kId,
    kCols,
    kRows,
    kCmd,
    kCwd,
    kReadyFd,
    kWorkspaceId,
    kReplicaId,
    kLeaseGeneration,
    kMigrationId,
    kAgentKind,
    kAdapterId,
    kTextCount,
};

Result<std::uint16_t> parseDimension(std::string_view text) {
    std::uint16_t value = TRY(parseNumber<std::uint16_t>(text));
    if (value == 0)
        return fail(Error::InvalidDimension);
    return value;
}

} // namespace

std::vector<std::string> encodeKeeperArguments(std::string_view executable,
                                               const KeeperLaunch& launch) {
    const SpawnOptions& options = launch.options;
    const PortableMetadata& portable = options.portable;
    std::vector<std::string> texts(kTextCount);
    texts[kId] = launch.id;
    texts[kCols] = decimal(options.cols);
    texts[kRows] = decimal(options.rows);
    texts[kCmd] = options.cmd;
    texts[kCwd] = options.cwd;
    texts[kReadyFd] = decimal(static_cast<std::uint64_t>(launch.readyFd));
    texts[kWorkspaceId] = portable.workspaceId;
    texts[kReplicaId] = portable.replicaId;
    if (portable.leaseGeneration)
        texts[kLeaseGeneration] = decimal(*portable.leaseGeneration);
    texts[kMigrationId] = portable.migrationId;
    texts[kAgentKind] = portable.agentKind;
    texts[kAdapterId] = portable.adapterId;
    texts.insert(texts.begin(), {std::string(executable), std::string(kKeeperExecWord)});
    return texts;
}

Result<KeeperLaunch> decodeKeeperArguments(std::span<const std::string_view> texts) {
    if (texts.size() != kTextCount)
        return fail(Error::BadKeeperArgs);
    if (!isValidSessionId(texts[kId]))
        return fail(Error::InvalidSessionId);
    KeeperLaunch launch;
    launch.id = std::string(texts[kId]);
    SpawnOptions& options = launch.options;
    options.cols = TRY(parseDimension(texts[kCols]));
    options.rows = TRY(parseDimension(texts[kRows]));
    options.cmd = std::string(texts[kCmd]);
    options.cwd = std::string(texts[kCwd]);
    if (texts[kReadyFd].empty())
        return fail(Error::InvalidCharacter);
    std::int32_t readyFd = TRY(parseNumber<std::int32_t>(texts[kReadyFd]));
    if (readyFd < 0)
        return fail(Error::InvalidReadyFd);
    launch.readyFd = readyFd;
    PortableMetadata& portable = options.portable;
    portable.workspaceId = std::string(texts[kWorkspaceId]);
    portable.replicaId = std::string(texts[kReplicaId]);
    if (!texts[kLeaseGeneration].empty())
        portable.leaseGeneration = TRY(parseNumber<std::uint64_t>(texts[kLeaseGeneration]));
    portable.migrationId = std::string(texts[kMigrationId]);
    portable.agentKind = std::string(texts[kAgentKind]);
    portable.adapterId = std::string(texts[kAdapterId]);
    TRY(validatePortableMetadata(portable));
    return launch;
}

void hideKeeperSecrets(std::span<const std::string_view> texts) {
    for (std::size_t i = kCmd; i < texts.size(); ++i)
        std::memset(const_cast<char*>(texts[i].data()), 0, texts[i].size());
}

} // namespace tovel
