// The `attach` command: its argument checks, then the attach client.
#include "cli/commands/attach.hpp"

#include "cli/log.hpp"
#include "cli/session_id.hpp"

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
    return attachExitStatus(end);
}

int attachExitStatus(const AttachEnd& end) {
    switch (end.how) {
    case AttachEnd::How::ShellExited:
        return end.shellStatus;
    case AttachEnd::How::InputClosed:
        return kExitSuccess;
    case AttachEnd::How::Interrupted:
        return kExitInterrupted;
    case AttachEnd::How::VersionMismatch:
        return kExitRefused;
    }
    return kExitFailure;
}

} // namespace tovel
