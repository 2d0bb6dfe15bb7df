// The `attach` command: its argument checks, then the attach client.
#include "cli/commands/attach.hpp"

#include "cli/log.hpp"
#include "cli/session_id.hpp"
#include "client/protocol/frame.hpp"

namespace tovel {

CommandResult runAttach(Args args) {
    if (args.empty()) {
        printStderr("usage: tovel-ptyd attach <id> [--dir PATH]\n");
        return kExitUsage;
    }
    if (!isValidSessionId(args[0])) {
        printStderr("attach: id must be 32 lowercase-hex chars\n");
        return kExitUsage;
    }
    if (args.size() != 1) {
        if (args.size() != 3 || args[1] != "--dir")
            return reportInvalidArguments("attach", Error::UnknownOption);
        std::size_t i = 1;
        bool sawDir = false;
        if (auto dir = takeDirOption(args, i, sawDir); !dir)
            return reportInvalidArguments("attach", dir.error());
    }
    auto detachKey = DetachKey::fromEnvironment();
    if (!detachKey)
        return reportInvalidDetachKey(detachKey.error());
    PortableMetadata noOwnerCheck;
    AttachEnd end = TRY(attachSession(AttachRequest{args[0], noOwnerCheck, *detachKey}));
    return finishAttach(end);
}

namespace {

void reportRefusal(const TakeoverRefusal& refusal) {
    switch (refusal.error) {
    case Error::PortableMetadataUnsupported:
        printStderr("tovel-ptyd: portable takeover metadata is unsupported by the live keeper\n");
        return;
    case Error::InvalidPortableTakeoverRejection:
        printStderr("tovel-ptyd: live keeper returned malformed portable takeover rejection\n");
        return;
    case Error::PortableMetadataMissing:
        printStderr("tovel-ptyd: portable_metadata_missing\n");
        return;
    case Error::PortableMetadataMismatch:
        printStderr("tovel-ptyd: portable_metadata_mismatch\n");
        return;
    case Error::StalePortableKeeper:
        printStderr("tovel-ptyd: portable_metadata_stale expected_generation=", refusal.expected,
                    " observed_generation=", refusal.other, "\n");
        return;
    case Error::StalePortableRequest:
        printStderr("tovel-ptyd: portable_request_stale expected_generation=", refusal.expected,
                    " received_generation=", refusal.other, "\n");
        return;
    case Error::PortableMetadataMalformed:
        printStderr("tovel-ptyd: portable_metadata_malformed\n");
        return;
    default:
        return;
    }
}

} // namespace

int finishAttach(const AttachEnd& end) {
    switch (end.how) {
    case AttachEnd::How::ShellExited:
        return end.shellStatus;
    case AttachEnd::How::InputClosed:
        return kExitSuccess;
    case AttachEnd::How::Interrupted:
        return kExitInterrupted;
    case AttachEnd::How::VersionMismatch:
        printStderr("tovel-ptyd: protocol mismatch (keeper v", end.keeperVersion, ", client v",
                    static_cast<unsigned>(kProtocolVersion),
                    "); the daemon is a different build. Restart it (kill the session) to "
                    "pick up the new binary.\n");
        return kExitRefused;
    case AttachEnd::How::Refused:
        reportRefusal(end.refusal);
        return kExitRefused;
    }
    return kExitFailure;
}

} // namespace tovel
