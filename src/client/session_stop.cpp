// Stopping a session over its keeper's socket: hello, shutdown request,
// acknowledgement, and for a forced stop the wait until nothing answers.
#include "client/session_stop.hpp"

#include "client/protocol/frame.hpp"
#include "client/protocol/session_address.hpp"
#include "platform/clock.hpp"
#include "platform/system.hpp"

namespace tovel {

namespace {

constexpr int kAcknowledgementTimeoutMs = 1000;
constexpr int kForcedStopProbes = 100;
constexpr int kForcedStopProbeIntervalMs = 10;

bool socketAnswers(std::string_view id) {
    auto fd = connect_session(id);
    return fd.has_value();
}

StopOutcome stepFailed(StopOutcome::Kind kind, Error cause = Error::Unexpected) {
    return StopOutcome{kind, cause};
}

} // namespace

Result<StopOutcome> stopSession(const StopRequest& request) {
    using Kind = StopOutcome::Kind;
    std::string_view id = request.id;
    if (!socketAnswers(id))
        return stepFailed(Kind::NotRunning);
    auto socket = connect_session(id);
    if (!socket)
        return stepFailed(Kind::ConnectFailed, socket.error());
    int fd = socket->get();

    char version = static_cast<char>(kProtocolVersion);
    if (auto sent = write_frame(fd, FrameType::Hello, std::string_view(&version, 1)); !sent)
        return stepFailed(Kind::HelloFailed, sent.error());
    char force = request.force == Force::Yes ? 1 : 0;
    if (auto sent = write_frame(fd, FrameType::Shutdown, std::string_view(&force, 1)); !sent)
        return stepFailed(Kind::RequestFailed, sent.error());

    pollfd entry{fd, POLLIN, 0};
    auto ready = sys::poll(std::span(&entry, 1), kAcknowledgementTimeoutMs);
    if (!ready)
        return stepFailed(Kind::AcknowledgementFailed, ready.error());
    if (*ready == 0)
        return stepFailed(Kind::NoSocketShutdown);

    auto frame = read_frame(fd);
    if (!frame)
        return stepFailed(Kind::InvalidAcknowledgement, frame.error());
    if (!*frame)
        return stepFailed(Kind::ClosedBeforeAcknowledgement);
    switch (static_cast<FrameType>((*frame)->type)) {
    case FrameType::VersionMismatch: {
        const std::string& payload = (*frame)->payload;
        StopOutcome mismatch = stepFailed(Kind::VersionMismatch);
        mismatch.keeperVersion = payload.empty() ? 0 : static_cast<std::uint8_t>(payload[0]);
        return mismatch;
    }
    case FrameType::ShutdownAck:
        break;
    default:
        return stepFailed(Kind::UnexpectedResponse);
    }
    if (request.force == Force::No)
        return StopOutcome{};
    socket->reset();
    for (int probe = 0; probe < kForcedStopProbes; ++probe) {
        TRY(sys::sleepMs(kForcedStopProbeIntervalMs));
        if (!socketAnswers(id))
            return StopOutcome{};
    }
    return stepFailed(Kind::DidNotStop);
}

} // namespace tovel
