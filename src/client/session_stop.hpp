// Stopping a session: asks its keeper to shut down over its socket and, when
// forced, waits until the socket stops answering.
#pragma once

#include "platform/result.hpp"

#include <string_view>

namespace tovel {

enum class Force { No, Yes };

struct StopRequest {
    std::string_view id;
    Force force = Force::No;
};

// How a stop ended: Stopped, or the step that failed, with the error or the
// keeper's protocol version where the step has one.
struct StopOutcome {
    enum class Kind {
        Stopped,
        NotRunning,
        ConnectFailed,          // cause
        HelloFailed,            // cause
        RequestFailed,          // cause
        AcknowledgementFailed,  // cause
        NoSocketShutdown,       // the keeper never answered the request
        InvalidAcknowledgement, // cause
        ClosedBeforeAcknowledgement,
        VersionMismatch, // keeperVersion
        UnexpectedResponse,
        DidNotStop,
    };
    Kind kind = Kind::Stopped;
    Error cause = Error::Unexpected;
    unsigned keeperVersion = 0;
};

// Fails only where waiting itself fails; every refusal is an outcome.
[[nodiscard]] Result<StopOutcome> stopSession(const StopRequest& request);

} // namespace tovel
