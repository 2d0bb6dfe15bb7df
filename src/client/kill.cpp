// The `kill` command: asks a session's keeper to shut down over its socket
// and, with --force, waits until the socket stops answering.
#include "client/kill.hpp"

#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "client/protocol/frame.hpp"
#include "client/protocol/session_address.hpp"
#include "platform/clock.hpp"
#include "platform/system.hpp"

namespace tovel {

namespace {

constexpr int kAcknowledgementTimeoutMs = 1000;
constexpr int kForcedStopProbes = 100;
constexpr int kForcedStopProbeIntervalMs = 10;

enum class Force { No, Yes };

struct KillRequest {
    std::string_view id;
    Force force = Force::No;
};

Result<KillRequest> parseKillArguments(Args args) {
    KillRequest request{args[0]};
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

bool socketAnswers(std::string_view id) {
    auto fd = connect_session(id);
    return fd.has_value();
}

template <typename... Pieces> int failLine(std::string_view id, const Pieces&... pieces) {
    printStderr("session ", id, pieces..., "\n");
    return kExitFailure;
}

Result<int> stopSession(const KillRequest& request) {
    std::string_view id = request.id;
    if (!socketAnswers(id))
        return failLine(id, ": not running");
    auto socket = connect_session(id);
    if (!socket)
        return failLine(id, ": ", socket.error());
    int fd = socket->get();

    char version = static_cast<char>(kProtocolVersion);
    if (auto sent = write_frame(fd, FrameType::Hello, std::string_view(&version, 1)); !sent)
        return failLine(id, ": shutdown hello failed: ", sent.error());
    char force = request.force == Force::Yes ? 1 : 0;
    if (auto sent = write_frame(fd, FrameType::Shutdown, std::string_view(&force, 1)); !sent)
        return failLine(id, ": shutdown request failed: ", sent.error());

    pollfd entry{fd, POLLIN, 0};
    auto ready = sys::poll(std::span(&entry, 1), kAcknowledgementTimeoutMs);
    if (!ready)
        return failLine(id, ": shutdown acknowledgement failed: ", ready.error());
    if (*ready == 0)
        return failLine(id, ": keeper does not support socket-controlled shutdown");

    auto frame = read_frame(fd);
    if (!frame)
        return failLine(id, ": invalid shutdown acknowledgement: ", frame.error());
    if (!*frame)
        return failLine(id, ": keeper closed before shutdown acknowledgement");
    switch (static_cast<FrameType>((*frame)->type)) {
    case FrameType::VersionMismatch: {
        const std::string& payload = (*frame)->payload;
        unsigned keeperVersion = payload.empty() ? 0 : static_cast<std::uint8_t>(payload[0]);
        return failLine(id, ": protocol mismatch (keeper v", keeperVersion, ", client v",
                        static_cast<unsigned>(kProtocolVersion), ")");
    }
    case FrameType::ShutdownAck:
        break;
    default:
        return failLine(id, ": unexpected shutdown response");
    }
    if (request.force == Force::No)
        return kExitSuccess;
    socket->reset();
    for (int probe = 0; probe < kForcedStopProbes; ++probe) {
        TRY(sys::sleepMs(kForcedStopProbeIntervalMs));
        if (!socketAnswers(id))
            return kExitSuccess;
    }
    return failLine(id, ": did not stop after forced shutdown");
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
    return stopSession(*request);
}

} // namespace tovel
