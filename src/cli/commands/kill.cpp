// The `kill` command: its arguments, the "session <id>: ..." line for every
// way a stop can fail, and the exit status.
#include "cli/commands/kill.hpp"

#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "client/protocol/frame.hpp"
#include "client/session_stop.hpp"

namespace tovel {

namespace {

Result<StopRequest> parseKillArguments(Args args) {
    StopRequest request{args[0]};
    bool sawDir = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--force") {
            if (request.force == Force::Yes)
                return fail(Error::DuplicateOption);
            request.force = Force::Yes;
        } else if (args[i] == "--dir") {
            TRY(takeDirOption(args, i, sawDir));
        } else {
            return fail(Error::UnknownOption);
        }
    }
    return request;
}

template <typename... Pieces> int failLine(std::string_view id, const Pieces&... pieces) {
    printStderr("session ", id, pieces..., "\n");
    return kExitFailure;
}

int report(std::string_view id, const StopOutcome& outcome) {
    using Kind = StopOutcome::Kind;
    switch (outcome.kind) {
    case Kind::Stopped:
        return kExitSuccess;
    case Kind::NotRunning:
        return failLine(id, ": not running");
    case Kind::ConnectFailed:
        return failLine(id, ": ", outcome.cause);
    case Kind::HelloFailed:
        return failLine(id, ": shutdown hello failed: ", outcome.cause);
    case Kind::RequestFailed:
        return failLine(id, ": shutdown request failed: ", outcome.cause);
    case Kind::AcknowledgementFailed:
        return failLine(id, ": shutdown acknowledgement failed: ", outcome.cause);
    case Kind::NoSocketShutdown:
        return failLine(id, ": keeper does not support socket-controlled shutdown");
    case Kind::InvalidAcknowledgement:
        return failLine(id, ": invalid shutdown acknowledgement: ", outcome.cause);
    case Kind::ClosedBeforeAcknowledgement:
        return failLine(id, ": keeper closed before shutdown acknowledgement");
    case Kind::VersionMismatch:
        return failLine(id, ": protocol mismatch (keeper v", outcome.keeperVersion, ", client v",
                        static_cast<unsigned>(kProtocolVersion), ")");
    case Kind::UnexpectedResponse:
        return failLine(id, ": unexpected shutdown response");
    case Kind::DidNotStop:
        return failLine(id, ": did not stop after forced shutdown");
    }
    return kExitFailure;
}

} // namespace

CommandResult runKill(Args args) {
    if (args.empty()) {
        printStderr("usage: tovel-ptyd kill <id> [--force]\n");
        return kExitUsage;
    }
    if (!isValidSessionId(args[0])) {
        printStderr("kill: id must be 32 lowercase-hex chars\n");
        return kExitUsage;
    }
    auto request = parseKillArguments(args);
    if (!request)
        return reportInvalidArguments("kill", request.error());
    // Not "not running": a directory that cannot be used is its own error.
    // A missing directory is no error here: its keepers still answer on
    // their abstract names.
    TRY(existingRuntimeDir());
    StopOutcome outcome = TRY(stopSession(*request));
    return report(request->id, outcome);
}

} // namespace tovel
