// The keeper's event loop.
#include "keeper/keeper_loop.hpp"

#include "cli/log.hpp"
#include "client/protocol/portable_takeover.hpp"
#include "keeper/output_flow.hpp"
#include "platform/clock.hpp"
#include "platform/process.hpp"
#include "platform/pty.hpp"
#include "platform/socket.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <climits>
#include <csignal>
#include <sys/wait.h>
#include <utility>

namespace tovel {

namespace {

constexpr int kTerminationTickMs = 50;
constexpr std::size_t kSignalReadSize = 16;
constexpr int kFinalFlushTimeoutMs = 2000;
constexpr std::uint32_t kSignalledStatusBits = 0xFFFFFF80u;
constexpr std::size_t kWinsizePayloadSize = 4;
// Output frames, replayed or live, fit the attach client's 64 KiB receive
// buffer whole, so streaming never makes the client grow it.
constexpr std::size_t kOutputBatchSize = kPtyReadSize - kFrameHeaderSize;
// Well under the terminal's 4 KiB line buffer, which a shell writing in
// bulk keeps full.
constexpr std::size_t kPtyShortRead = 2048;
// The poll set: these fixed slots, then one slot per client in table order.
enum PollSlot : std::size_t {
    kPathListenerSlot,
    kAbstractListenerSlot,
    kPtySlot,
    kSignalSlot,
    kFirstClientSlot,
};
constexpr std::int64_t kHangupAfterTermMs = 2000;
constexpr std::int64_t kKillAfterHangupMs = 5000;
constexpr std::int64_t kStrangerLineIntervalMs = 60000;

struct Winsize {
    std::uint16_t cols;
    std::uint16_t rows;
};

Result<Winsize> parseWinsize(std::string_view payload) {
    if (payload.size() != kWinsizePayloadSize)
        return fail(Error::InvalidWinsize);
    Winsize size{getU16(payload.data()), getU16(payload.data() + 2)};
    if (size.cols == 0 || size.rows == 0)
        return fail(Error::InvalidWinsize);
    return size;
}

// The bytes of the frames that carry `replay`, markers included.
std::size_t replayFrameBytes(const ReplayRing::Replay& replay) {
    std::size_t frames = 2 + (replay.preamble.empty() ? 0 : 1);
    std::size_t payload = replay.preamble.view().size();
    for (std::string_view piece : {replay.older, replay.newer}) {
        frames += (piece.size() + kOutputBatchSize - 1) / kOutputBatchSize;
        payload += piece.size();
    }
    return payload + frames * kFrameHeaderSize;
}

void requestRepaint(int master) {
    auto group = sys::foregroundProcessGroup(master);
    if (group)
        (void)sys::killProcessGroup(*group, SIGWINCH);
}

} // namespace

std::uint32_t encodeExitStatus(int waitStatus) {
    if (WIFEXITED(waitStatus))
        return static_cast<std::uint32_t>(WEXITSTATUS(waitStatus));
    if (WIFSIGNALED(waitStatus))
        return static_cast<std::uint32_t>(waitStatus) | kSignalledStatusBits;
    return 1;
}

KeeperLoop::KeeperLoop(KeeperListeners listeners, ShellProcess shell, sys::SignalPipe signals,
                       KeeperFiles files, SessionMetadata metadata, SelfHeal selfHeal)
    : listeners_(std::move(listeners)), selfHeal_(std::move(selfHeal)), shell_(std::move(shell)),
      signals_(std::move(signals)), files_(std::move(files)), metadata_(std::move(metadata)),
      readBuffer_(std::make_unique_for_overwrite<char[]>(kPtyReadSize)) {}

std::uint32_t KeeperLoop::run() {
    std::vector<pollfd> entries;
    while (!exitStatus_) {
        std::int64_t now = sys::monotonicMs();
        OutputFlow flow = outputFlow(clients_, now);
        entries.assign(kFirstClientSlot, pollfd{-1, 0, 0});
        entries[kPathListenerSlot] = {listeners_.path.get(), POLLIN, 0};
        entries[kAbstractListenerSlot] = {listeners_.abstract.get(), POLLIN, 0};
        if (!terminalGone_) {
            short ptyEvents = flow.readShell ? POLLIN : 0;
            if (!ptyInput_.empty())
                ptyEvents |= POLLOUT;
            entries[kPtySlot] = {shell_.master.get(), ptyEvents, 0};
        }
        entries[kSignalSlot] = {signals_.readFd(), POLLIN, 0};
        for (const auto& client : clients_) {
            short events = POLLIN;
            if (!client->output.empty())
                events |= POLLOUT;
            entries.push_back({client->fd.get(), events, 0});
        }

        auto ready = sys::poll(entries, earlierTimeout(pollTimeout(now), flow.timeoutMs));
        if (!ready) {
            logError(LogScope::Keeper, "poll failed: ", ready.error());
            continue;
        }

        if (entries[kSignalSlot].revents != 0 || terminationRequested_)
            handleSignals();
        if (exitStatus_)
            break;
        for (PollSlot listener : {kPathListenerSlot, kAbstractListenerSlot}) {
            if (entries[listener].revents & POLLIN)
                acceptClient(entries[listener].fd);
        }
        if (entries[kPtySlot].revents & (POLLIN | POLLHUP | POLLERR))
            readPty();

        // Clients accepted in this wake-up have no slot yet.
        std::size_t polledClients = entries.size() - kFirstClientSlot;
        for (std::size_t i = 0; i < polledClients && i < clients_.size(); ++i) {
            KeeperClient& client = *clients_[i];
            short revents = entries[kFirstClientSlot + i].revents;
            if (!client.dropped && (revents & POLLOUT))
                flushClient(client);
            if (!client.dropped && (revents & (POLLIN | POLLHUP | POLLERR)))
                readClient(client, revents);
        }

        now = sys::monotonicMs();
        for (auto& client : clients_) {
            if (!client->dropped && !client->handshaken &&
                now - client->acceptedAtMs >= kHandshakeDeadlineMs) {
                logWarning(LogScope::Keeper, "client handshake timed out fd=", client->fd.get());
                client->dropped = true;
            }
        }
        removeDroppedClients();
        // Keystrokes go to the shell in the same wake-up that received them:
        // waiting for the next poll to report the master writable would add
        // a round trip to every echo.
        if (!terminalGone_ && !ptyInput_.empty())
            writePtyInput();

        if (pendingShutdown_) {
            signalShell(*pendingShutdown_);
            pendingShutdown_.reset();
            terminationRequested_ = true;
        }
        now = sys::monotonicMs();
        escalateShutdown(now);
        repairSessionFiles(now);
    }
    finish();
    return *exitStatus_;
}

int KeeperLoop::pollTimeout(std::int64_t now) const {
    std::optional<std::int64_t> smallest;
    for (const auto& client : clients_) {
        if (client->handshaken)
            continue;
        std::int64_t remaining = client->acceptedAtMs + kHandshakeDeadlineMs - now;
        remaining = std::clamp<std::int64_t>(remaining, 0, INT_MAX);
        if (!smallest || remaining < *smallest)
            smallest = remaining;
    }
    // The file check is the keeper's one timer when nothing else is due.
    std::int64_t untilCheck = std::clamp<std::int64_t>(selfHeal_.nextCheckMs() - now, 0, INT_MAX);
    if (!smallest || untilCheck < *smallest)
        smallest = untilCheck;
    if (terminationRequested_)
        return static_cast<int>(std::min<std::int64_t>(*smallest, kTerminationTickMs));
    return static_cast<int>(*smallest);
}

void KeeperLoop::handleSignals() {
    char bytes[kSignalReadSize];
    auto got = signals_.drain(bytes);
    std::string_view received = got ? std::string_view(bytes, *got) : std::string_view();
    if (received.find('T') != std::string_view::npos) {
        terminationRequested_ = true;
        signalShell(ShellSignal::Graceful);
    }
    reapShell();
}

void KeeperLoop::reapShell() {
    auto waited = sys::waitpid(shell_.pid, sys::WaitMode::NoHang);
    if (waited && waited->pid == shell_.pid)
        exitStatus_ = encodeExitStatus(waited->status);
}

void KeeperLoop::signalShell(ShellSignal kind) {
    int signal = SIGTERM;
    std::int64_t now = sys::monotonicMs();
    switch (kind) {
    case ShellSignal::Graceful:
        // A later request does not postpone a hang-up already planned.
        if (!escalation_)
            escalation_ = Escalation{now + kHangupAfterTermMs, ShellSignal::Hangup};
        break;
    case ShellSignal::Hangup:
        // Interactive shells ignore SIGTERM but end on a terminal hang-up
        // and pass it on to their jobs.
        signal = SIGHUP;
        escalation_ = Escalation{now + kKillAfterHangupMs, ShellSignal::Forced};
        break;
    case ShellSignal::Forced:
        signal = SIGKILL;
        escalation_.reset();
        break;
    }
    if (auto sent = sys::killProcessGroup(shell_.pid, signal); !sent)
        logWarning(LogScope::Keeper, "failed to signal shell group: ", sent.error());
    if (auto sent = sys::kill(shell_.pid, signal); !sent)
        logWarning(LogScope::Keeper, "failed to signal shell leader: ", sent.error());
}

void KeeperLoop::escalateShutdown(std::int64_t now) {
    if (escalation_ && !exitStatus_ && now >= escalation_->atMs)
        signalShell(escalation_->next);
}

void KeeperLoop::repairSessionFiles(std::int64_t now) {
    auto listener = selfHeal_.checkAndRepair(now);
    if (!listener)
        return;
    listeners_.path = std::move(*listener);
    rewriteMetadata();
}

bool KeeperLoop::admitPeer(int fd) {
    // The abstract name has no file permissions to keep anyone out.
    auto peer = sys::peerUid(fd);
    if (!peer) {
        logWarning(LogScope::Keeper,
                   "rejecting client; peer credentials unavailable: ", peer.error());
        return false;
    }
    if (*peer == sys::getuid() || *peer == 0)
        return true;
    std::int64_t now = sys::monotonicMs();
    if (strangers_.lastAtMs && now - *strangers_.lastAtMs < kStrangerLineIntervalMs) {
        ++strangers_.unlogged;
        return false;
    }
    if (strangers_.unlogged == 0)
        logWarning(LogScope::Keeper, "rejecting client; peer uid=", *peer, " is not the owner");
    else
        logWarning(LogScope::Keeper, "rejecting client; peer uid=", *peer, " is not the owner; ",
                   strangers_.unlogged, " more rejected since the last such line");
    strangers_ = {now, 0};
    return false;
}

void KeeperLoop::acceptClient(int listener) {
    auto accepted = sys::acceptNonBlocking(listener);
    if (!accepted)
        return;
    if (!admitPeer(accepted->get()))
        return;
    if (!sys::setSendBuffer(accepted->get(), kClientSendBufferSize)) {
        logWarning(LogScope::Keeper,
                   "rejecting client; socket setup failed: ", Error::SocketConfigurationFailed);
        return;
    }
    if (clients_.size() >= kMaxClients) {
        logWarning(LogScope::Keeper, "rejecting client; at max_clients=", kMaxClients);
        return;
    }
    clients_.push_back(std::make_unique<KeeperClient>(std::move(*accepted), sys::monotonicMs()));
}

void KeeperLoop::readPty() {
    // The terminal hands out at most its 4 KiB line buffer per read and
    // refills it from what the shell has already written when read again.
    // Draining it here costs one wake-up and one frame per client for up to
    // a whole frame of output instead of one per 4 KiB. A short read means
    // the shell has paused (a keystroke's echo): asking again would only be
    // refused.
    std::size_t filled = 0;
    bool gone = false;
    while (filled < kOutputBatchSize) {
        auto got = sys::read(shell_.master.get(),
                             std::span(readBuffer_.get() + filled, kOutputBatchSize - filled));
        if (!got && got.error() == Error::WouldBlock)
            break;
        if (!got || *got == 0) {
            gone = true;
            break;
        }
        filled += *got;
        if (*got < kPtyShortRead)
            break;
    }
    if (filled > 0) {
        std::string_view bytes(readBuffer_.get(), filled);
        // Clients first: following the terminal state through the bytes
        // the ring lets go is then done while they print these.
        for (auto& client : clients_) {
            if (client->attached && !client->dropped)
                sendOutput(*client, bytes);
        }
        ring_.append(bytes);
    }
    if (gone) {
        // The terminal is gone: the shell has ended or is about to. Keep
        // ticking until it is reaped.
        terminalGone_ = true;
        terminationRequested_ = true;
        reapShell();
    }
}

void KeeperLoop::writePtyInput() {
    auto written = sys::write(shell_.master.get(), ptyInput_.front());
    if (written)
        ptyInput_.consume(*written);
}

void KeeperLoop::sendOutput(KeeperClient& client, std::string_view payload) {
    // Behind already: the frame waits its turn, and the socket is written
    // when poll reports room.
    if (!client.output.empty()) {
        (void)queueFrame(client, FrameType::Output, payload);
        return;
    }
    char header[kFrameHeaderSize];
    encodeFrameHeader(header, FrameType::Output, payload.size());
    if (auto written = writeClient(client, std::string_view(header, sizeof header), payload);
        !written)
        reportOutputFailure(client, written.error());
}

Result<> KeeperLoop::queueFrame(KeeperClient& client, FrameType type, std::string_view payload) {
    if (client.output.empty())
        client.progressAtMs = sys::monotonicMs();
    char header[kFrameHeaderSize];
    encodeFrameHeader(header, type, payload.size());
    auto queued = client.output.append(std::string_view(header, sizeof header), payload,
                                       Error::OutputBackpressure);
    if (!queued)
        reportOutputFailure(client, queued.error());
    return queued;
}

void KeeperLoop::flushClient(KeeperClient& client) {
    if (auto written = writeClient(client); !written)
        reportOutputFailure(client, written.error());
}

Result<> KeeperLoop::writeClient(KeeperClient& client, std::string_view header,
                                 std::string_view payload) {
    // Caught up until now: whatever stays queued starts its wait here.
    if (client.output.empty())
        client.progressAtMs = sys::monotonicMs();
    for (;;) {
        std::string_view pieces[] = {client.output.front(), header, payload};
        std::size_t wanted = pieces[0].size() + header.size() + payload.size();
        if (wanted == 0)
            return {};
        auto written = sys::writev(client.fd.get(), pieces);
        if (!written && written.error() == Error::WouldBlock)
            break;
        if (!written)
            return fail(written.error());
        client.progressAtMs = sys::monotonicMs();
        std::size_t sent = *written;
        std::size_t fromQueue = std::min(sent, pieces[0].size());
        client.output.consume(fromQueue);
        sent -= fromQueue;
        std::size_t fromHeader = std::min(sent, header.size());
        header.remove_prefix(fromHeader);
        payload.remove_prefix(sent - fromHeader);
        // A short write means the socket is full: asking again now would
        // only be refused.
        if (*written < wanted)
            break;
    }
    return client.output.append(header, payload, Error::OutputBackpressure);
}

void KeeperLoop::reportOutputFailure(KeeperClient& client, Error error) {
    if (error == Error::OutputBackpressure)
        logWarning(LogScope::Keeper, "client output queue full fd=", client.fd.get(),
                   " err=", error);
    else
        logWarning(LogScope::Keeper, "client output failed fd=", client.fd.get(), " err=", error);
    client.dropped = true;
}

void KeeperLoop::readClient(KeeperClient& client, short revents) {
    std::span<char> room(client.input.data() + client.inputUsed,
                         client.input.size() - client.inputUsed);
    auto got = sys::read(client.fd.get(), room);
    if (!got && got.error() == Error::WouldBlock)
        return;
    if (!got || *got == 0) {
        dropClient(client);
        // A liveness probe connects and closes without a word: not worth a
        // log line, however often it comes.
        if (!client.handshaken)
            return;
        std::size_t remaining = 0;
        for (const auto& other : clients_)
            remaining += other->dropped ? 0 : 1;
        logInfo(LogScope::Keeper, "client dropped fd=", client.fd.get(), " clients=", remaining,
                " revents=0x", Hex{static_cast<std::uint16_t>(revents)});
        return;
    }
    client.inputUsed += *got;

    std::size_t offset = 0;
    // The length field alone decides whether a frame is acceptable.
    while (!client.dropped && client.inputUsed - offset >= kFrameLengthSize) {
        const char* head = client.input.data() + offset;
        auto frameSize = frameSizeFromLength(head);
        if (!frameSize || *frameSize > kClientInputBufferSize) {
            dropClient(client);
            return;
        }
        if (client.inputUsed - offset < *frameSize)
            break;
        auto type = static_cast<FrameType>(static_cast<std::uint8_t>(head[kFrameLengthSize]));
        std::string_view payload(head + kFrameHeaderSize, *frameSize - kFrameHeaderSize);
        offset += *frameSize;
        if (auto handled = handleFrame(client, type, payload); !handled) {
            dropClient(client);
            return;
        }
    }
    std::copy(client.input.data() + offset, client.input.data() + client.inputUsed,
              client.input.data());
    client.inputUsed -= offset;
}

Result<> KeeperLoop::handleFrame(KeeperClient& client, FrameType type, std::string_view payload) {
    switch (type) {
    case FrameType::Hello:
        return handleHello(client, payload);
    case FrameType::Attach:
        if (!client.handshaken)
            return fail(Error::NotAttached);
        return handleAttach(client, payload);
    case FrameType::Input:
        if (!client.attached)
            return fail(Error::NotAttached);
        return ptyInput_.append(payload, {}, Error::InputBackpressure);
    case FrameType::Resize:
        if (!client.attached)
            return fail(Error::NotAttached);
        return handleResize(client, payload);
    case FrameType::Ping:
        return queueFrame(client, FrameType::Pong, {});
    case FrameType::Shutdown:
        return handleShutdown(client, payload);
    case FrameType::PortableTakeover:
        return handleTakeover(client, payload);
    default:
        return {};
    }
}

Result<> KeeperLoop::handleHello(KeeperClient& client, std::string_view payload) {
    std::uint8_t version = payload.empty() ? 0 : static_cast<std::uint8_t>(payload[0]);
    if (version == kProtocolVersion) {
        client.handshaken = true;
        return {};
    }
    logWarning(LogScope::Keeper, "client proto v", version, " != keeper v", kProtocolVersion,
               "; rejecting");
    char keeperVersion = static_cast<char>(kProtocolVersion);
    TRY(queueFrame(client, FrameType::VersionMismatch, std::string_view(&keeperVersion, 1)));
    // Best effort: the client is dropped whether or not it reads the answer.
    (void)writeClient(client);
    return fail(Error::IncompatibleVersion);
}

Result<> KeeperLoop::handleAttach(KeeperClient& client, std::string_view payload) {
    Winsize size = TRY(parseWinsize(payload));
    bool sizeChanged = metadata_.cols != size.cols || metadata_.rows != size.rows;
    applySize(size.cols, size.rows);
    if (client.attached) {
        if (sizeChanged)
            rewriteMetadata();
        return {};
    }
    ReplayRing::Replay replay = ring_.replay();
    TRY(queueFrame(client, FrameType::ReplayStart, {}));
    if (!replay.preamble.empty())
        TRY(queueFrame(client, FrameType::Output, replay.preamble.view()));
    bool firstChunk = true;
    for (std::string_view piece : {replay.older, replay.newer}) {
        while (!piece.empty()) {
            std::string_view chunk = piece.substr(0, kOutputBatchSize);
            TRY(queueFrame(client, FrameType::Output, chunk));
            piece.remove_prefix(chunk.size());
            if (!std::exchange(firstChunk, false))
                continue;
            // The returning user sees the first screenful while the rest is
            // copied, and the rest is copied once, not at every doubling
            // (what was already sent leaves slack that is never touched).
            TRY(writeClient(client));
            client.output.reserve(replayFrameBytes(replay));
        }
    }
    TRY(queueFrame(client, FrameType::ReplayEnd, {}));
    // A full-screen program redraws on a size change; the new client's
    // screen is only whole after such a redraw.
    if (replay.alternateScreen && !terminalGone_)
        requestRepaint(shell_.master.get());
    client.attached = true;
    logInfo(LogScope::Keeper, "client attached fd=", client.fd.get());
    metadata_.lastAttachedAt = sys::realtimeSeconds();
    rewriteMetadata();
    return {};
}

Result<> KeeperLoop::handleResize(KeeperClient&, std::string_view payload) {
    Winsize size = TRY(parseWinsize(payload));
    bool sizeChanged = metadata_.cols != size.cols || metadata_.rows != size.rows;
    applySize(size.cols, size.rows);
    if (sizeChanged)
        rewriteMetadata();
    return {};
}

void KeeperLoop::applySize(std::uint16_t cols, std::uint16_t rows) {
    if (!terminalGone_ && !sys::setWindowSize(shell_.master.get(), {cols, rows}))
        logWarning(LogScope::Keeper, "setSize failed: ", Error::IoctlFailed);
    metadata_.cols = cols;
    metadata_.rows = rows;
}

void KeeperLoop::rewriteMetadata() {
    if (auto written = writeSessionMetadata(files_.metadataPath, metadata_); !written)
        logWarning(LogScope::Keeper, "failed to update session metadata: ", written.error());
}

Result<> KeeperLoop::handleShutdown(KeeperClient& client, std::string_view payload) {
    if (!client.handshaken || payload.size() != 1 || (payload[0] != 0 && payload[0] != 1))
        return fail(Error::InvalidShutdownRequest);
    TRY(queueFrame(client, FrameType::ShutdownAck, {}));
    pendingShutdown_ = payload[0] == 1 ? ShellSignal::Forced : ShellSignal::Graceful;
    return {};
}

Result<> KeeperLoop::handleTakeover(KeeperClient& client, std::string_view payload) {
    if (client.attached)
        return fail(Error::AlreadyAttached);
    // A request this keeper cannot read is a protocol violation by the client.
    PortableMetadata requested = TRY(decodePortableTakeover(payload));
    auto rejection = decideTakeover(requested, &metadata_.portable);
    if (!rejection)
        return queueFrame(client, FrameType::PortableTakeoverAccepted, {});
    return queueFrame(client, FrameType::PortableTakeoverRejected,
                      encodeTakeoverRejection(*rejection));
}

void KeeperLoop::dropClient(KeeperClient& client) {
    client.dropped = true;
}

void KeeperLoop::removeDroppedClients() {
    // Densely packed: a removed client's place goes to the last one.
    for (std::size_t i = 0; i < clients_.size();) {
        if (!clients_[i]->dropped) {
            ++i;
            continue;
        }
        clients_[i] = std::move(clients_.back());
        clients_.pop_back();
    }
}

void KeeperLoop::finish() {
    removeDroppedClients();
    char status[4];
    putU32(status, *exitStatus_);
    for (auto& client : clients_) {
        if (!client->attached)
            continue;
        char header[kFrameHeaderSize];
        encodeFrameHeader(header, FrameType::Exit, sizeof status);
        auto queued = client->output.append(std::string_view(header, sizeof header),
                                            std::string_view(status, sizeof status),
                                            Error::OutputBackpressure);
        if (!queued)
            logWarning(LogScope::Keeper, "failed to queue exit status fd=", client->fd.get(), ": ",
                       queued.error());
    }
    // A client that stops reading cannot hold the keeper forever.
    std::int64_t deadline = sys::monotonicMs() + kFinalFlushTimeoutMs;
    for (auto& client : clients_) {
        for (;;) {
            auto written = writeClient(*client);
            if (written && client->output.empty())
                break;
            if (written) {
                std::int64_t left = deadline - sys::monotonicMs();
                pollfd entry{client->fd.get(), POLLOUT, 0};
                if (left > 0 &&
                    sys::poll(std::span(&entry, 1), static_cast<int>(left)).value_or(0) > 0)
                    continue;
                written = fail(Error::WouldBlock);
            }
            logWarning(LogScope::Keeper, "final client flush failed: ", written.error());
            break;
        }
    }
    clients_.clear();
    shell_.master.reset();
    listeners_.path.reset();
    listeners_.abstract.reset();
    (void)sys::unlink(files_.socketPath);
    (void)sys::unlink(files_.metadataPath);
}

} // namespace tovel
