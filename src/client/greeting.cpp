// Connect and greet, and the client side of the portable takeover exchange.
#include "client/greeting.hpp"

#include "client/protocol/frame.hpp"
#include "client/protocol/portable_takeover.hpp"
#include "client/protocol/session_address.hpp"
#include "client/terminal_mode.hpp"
#include "platform/system.hpp"

namespace tovel {

namespace {

// The keeper's answer to a PortableTakeover request; a refusal's
// generations go to `refusal`.
Result<> exchangePortableTakeover(int fd, const PortableMetadata& portable,
                                  TakeoverRefusal& refusal) {
    TRY(validatePortableMetadata(portable));
    std::string payload = TRY(encodePortableTakeover(portable));
    TRY(write_frame(fd, FrameType::PortableTakeover, payload));

    pollfd entry{fd, POLLIN, 0};
    int ready = TRY(sys::poll(std::span(&entry, 1), kTakeoverAnswerTimeoutMs));
    if (ready == 0)
        return fail(Error::PortableMetadataUnsupported);
    auto frame = TRY(read_frame(fd));
    if (!frame)
        return fail(Error::PortableTakeoverClosed);
    switch (static_cast<FrameType>(frame->type)) {
    case FrameType::PortableTakeoverAccepted:
        return {};
    case FrameType::VersionMismatch:
        return fail(Error::IncompatibleVersion);
    case FrameType::PortableTakeoverRejected: {
        TakeoverRejection rejection = TRY(decodeTakeoverRejection(frame->payload));
        refusal = {rejectionError(rejection.reason), rejection.expected, rejection.other};
        return fail(refusal.error);
    }
    default:
        return fail(Error::UnexpectedPortableTakeoverResponse);
    }
}

Result<> greet(int fd, const PortableMetadata& portable, TakeoverRefusal& refusal) {
    char version = static_cast<char>(kProtocolVersion);
    TRY(write_frame(fd, FrameType::Hello, std::string_view(&version, 1)));
    if (!portable.empty())
        TRY(exchangePortableTakeover(fd, portable, refusal));
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

Result<UniqueFd> connectAndGreet(std::string_view id, const PortableMetadata& portable,
                                 TakeoverRefusal& refusal) {
    refusal = {};
    UniqueFd fd = TRY(connect_session(id));
    auto greeted = greet(fd.get(), portable, refusal);
    if (!greeted) {
        refusal.error = greeted.error();
        return fail(greeted.error());
    }
    return fd;
}

} // namespace tovel
