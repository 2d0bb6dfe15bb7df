// The `ensure` command: attaches to the keeper of a session id if one is
// live, and otherwise starts one bound to exactly that id first. With
// portable metadata it refuses a session whose recorded owner disagrees.
#include "cli/commands/ensure.hpp"

#include "cli/commands/attach.hpp"
#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "cli/session_metadata.hpp"
#include "client/detach_key.hpp"
#include "client/launcher.hpp"
#include "client/protocol/frame.hpp"
#include "client/protocol/portable_takeover.hpp"
#include "client/protocol/session_address.hpp"
#include "platform/env.hpp"

namespace tovel {

namespace {

bool keeperAnswers(std::string_view id) {
    return connect_session(id).has_value();
}

// Starts a keeper for the id unless one answers. Returns an exit status
// when the command must stop.
std::optional<int> makeLive(std::string_view id, const SpawnOptions& options) {
    if (keeperAnswers(id))
        return std::nullopt;
    auto launched = launchKeeper(id, options);
    if (!launched) {
        printStderr("ensure: keeper startup failed: ", launched.error(), "\n");
        return kExitFailure;
    }
    if (*launched != LaunchOutcome::Ready && !keeperAnswers(id)) {
        printStderr("ensure: keeper failed to start (id=", id, ")\n");
        return kExitFailure;
    }
    return std::nullopt;
}

// Compares the request with the session's metadata record; prints the
// refusal line and returns status 3 when the session belongs to someone else.
std::optional<int> refuseStranger(std::string_view id, const PortableMetadata& requested) {
    PortableComparison comparison;
    auto path = sessionPath(id, ".meta");
    auto bytes = path ? readMetadataBytes(*path) : fail(path.error());
    if (!bytes) {
        comparison.kind = PortableComparison::Kind::Missing;
        comparison.field = "session_metadata";
    } else {
        comparison = compare_portable(requested, parseSessionMetadata(*bytes).metadata.portable);
    }
    switch (comparison.kind) {
    case PortableComparison::Kind::NoCheck:
    case PortableComparison::Kind::Match:
        return std::nullopt;
    case PortableComparison::Kind::Missing:
        printStderr("ensure: portable_metadata_missing field=", comparison.field, "\n");
        break;
    case PortableComparison::Kind::Mismatch:
        printStderr("ensure: portable_metadata_mismatch field=", comparison.field, "\n");
        break;
    case PortableComparison::Kind::KeeperStale:
        printStderr("ensure: portable_metadata_stale expected_generation=", comparison.expected,
                    " observed_generation=", comparison.other, "\n");
        break;
    case PortableComparison::Kind::RequestStale:
        printStderr("ensure: portable_request_stale expected_generation=", comparison.expected,
                    " received_generation=", comparison.other, "\n");
        break;
    }
    return kExitRefused;
}

} // namespace

CommandResult runEnsure(Args args) {
    if (args.empty()) {
        printStderr("usage: tovel-ptyd ensure <id> [spawn options] [portable metadata options]\n");
        return kExitUsage;
    }
    std::string_view id = args[0];
    if (!isValidSessionId(id)) {
        printStderr("ensure: id must be 32 lowercase-hex chars (got ", id.size(), " bytes)\n");
        return kExitUsage;
    }
    if (!sys::setEnv("TOVEL_SHELL_ID", id))
        return fail(Error::SetEnvironmentFailed);
    auto options = parseSpawnOptions(args.subspan(1), OptionSet::All);
    if (!options)
        return reportInvalidArguments("ensure", options.error());
    // An unusable detach key is refused before a keeper is started for nothing.
    auto detachKey = DetachKey::fromEnvironment();
    if (!detachKey)
        return reportInvalidDetachKey(detachKey.error());
    // A missing directory is no error here: its keepers still answer on
    // their abstract names.
    TRY(existingRuntimeDir());
    TRY(checkSocketPathFits());

    if (auto stop = makeLive(id, *options))
        return *stop;
    const PortableMetadata& portable = options->portable;
    if (!portable.empty()) {
        if (auto refused = refuseStranger(id, portable))
            return *refused;
    }

    AttachEnd end = TRY(attachSession(AttachRequest{id, portable, *detachKey}));
    return finishAttach(end);
}

} // namespace tovel
