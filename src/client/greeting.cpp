// Connect and greet, and the client side of the portable takeover exchange.
#include "client/greeting.hpp"

#include "cli/log.hpp"
#include "client/protocol/frame.hpp"
#include "client/protocol/portable_takeover.hpp"
#include "client/protocol/session_address.hpp"
#include "client/terminal_mode.hpp"
#include "platform/system.hpp"

namespace tovel {

namespace {

void printRejection(const TakeoverRejection& rejection) {
    switch (rejection.reason) {
    case RejectionReason::Missing:
        printStderr("tovel-ptyd: portable_metadata_missing\n");
        break;
    case RejectionReason::Mismatch:
        printStderr("tovel-ptyd: portable_metadata_mismatch\n");
        break;
    case RejectionReason::KeeperStale:
        printStderr("tovel-ptyd: portable_metadata_stale expected_generation=", rejection.expected,
                    " observed_generation=", rejection.other, "\n");
        break;
    case RejectionReason::RequestStale:
        printStderr("tovel-ptyd: portable_request_stale expected_generation=", rejection.expected,
                    " received_generation=", rejection.other, "\n");
        break;
    case RejectionReason::Malformed:
        printStderr("tovel-ptyd: portable_metadata_malformed\n");
        break;
    }
}

Result<> greet(int fd, const PortableMetadata& portable) {
    char version = static_cast<char>(kProtocolVersion);
    TRY(write_frame(fd, FrameType::Hello, std::string_view(&version, 1)));
    if (!portable.empty())
        TRY(exchangePortableTakeover(fd, portable));
    sys::WindowSize size = localWindowSize();
    TRY(write_frame(fd, FrameType::Attach, encodeWinsize(size.cols, size.rows)));
    return {};
}

} // namespace

bool isTakeoverRefusal(Error error) {
    switch (error) {
    case Error::PortableMetadataUnsupported:
    case Error::InvalidPortableTakeoverRejection:
    case Error::StalePortableKeeper:
    case Error::StalePortableRequest:
    case Error::PortableMetadataMissing:
    case Error::PortableMetadataMismatch:
    case Error::PortableMetadataMalformed:
    case Error::UnexpectedPortableTakeoverResponse:
        return true;
    default:
        return false;
    }
}

Result<> exchangePortableTakeover(int fd, const PortableMetadata& portable) {
    TRY(validatePortableMetadata(portable));
    std::string payload = TRY(encodePortableTakeover(portable));
    TRY(write_frame(fd, FrameType::PortableTakeover, payload));

    pollfd entry{fd, POLLIN, 0};
    int ready = TRY(sys::poll(std::span(&entry, 1), kTakeoverAnswerTimeoutMs));
    if (ready == 0) {
        printStderr("tovel-ptyd: portable takeover metadata is unsupported by the live keeper\n");
        return fail(Error::PortableMetadataUnsupported);
    }
    auto frame = TRY(read_frame(fd));
    if (!frame)
        return fail(Error::PortableTakeoverClosed);
    switch (static_cast<FrameType>(frame->type)) {
    case FrameType::PortableTakeoverAccepted:
        return {};
    case FrameType::VersionMismatch:
        return fail(Error::IncompatibleVersion);
    case FrameType::PortableTakeoverRejected: {
        auto rejection = decodeTakeoverRejection(frame->payload);
        if (!rejection) {
            printStderr("tovel-ptyd: live keeper returned malformed portable takeover rejection\n");
            return fail(Error::InvalidPortableTakeoverRejection);
        }
        printRejection(*rejection);
        return fail(rejectionError(rejection->reason));
    }
    default:
        return fail(Error::UnexpectedPortableTakeoverResponse);
    }
}

Result<UniqueFd> connectAndGreet(std::string_view id, const PortableMetadata& portable) {
    UniqueFd fd = TRY(connect_session(id));
    TRY(greet(fd.get(), portable));
    return fd;
}

} // namespace tovel
