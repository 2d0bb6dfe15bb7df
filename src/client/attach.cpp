// The attach client: raw terminal, keystrokes and size changes to the
// keeper, the keeper's output (with the replay bracket) to the terminal,
// reconnecting with back-off, and the shell's exit status at the end.
#include "client/attach.hpp"

#include "cli/session_id.hpp"
#include "client/detach_key.hpp"
#include "client/greeting.hpp"
#include "client/protocol/frame.hpp"
#include "client/protocol/terminal_state.hpp"
#include "client/receive_buffer.hpp"
#include "client/replay_bracket.hpp"
#include "client/terminal_mode.hpp"
#include "platform/clock.hpp"
#include "platform/random.hpp"
#include "platform/signal.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <array>
#include <csignal>

namespace tovel {

namespace {

constexpr std::size_t kInputReadSize = 16384;
constexpr std::size_t kSignalReadSize = 16;
constexpr int kMaxReconnectAttempts = 20;
constexpr int kReconnectBaseDelayMs = 100;
constexpr int kReconnectMaxShift = 5;
constexpr int kReconnectMaxDelayMs = 2000;
// A connection that lasted this long starts a fresh reconnect series.
constexpr std::int64_t kReconnectResetMs = 4999;
constexpr int kMaxExitStatus = 255;
constexpr std::size_t kNonceBytes = 16;

Result<std::string> replayNonce() {
    std::array<std::byte, kNonceBytes> bytes;
    TRY(sys::randomBytes(bytes));
    return hexEncode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

Error pollError(Error error) {
    return error == Error::SystemResources ? Error::SystemResources : Error::Unexpected;
}

// What handling a batch of keeper frames decided.
enum class Flow { Continue, Reconnect };

// How a reconnect turned out: back on a new connection, so the attach goes
// on, or the attach ends.
class Ending {
  public:
    static Ending none() { return Ending(false, AttachEnd{}); }
    static Ending with(AttachEnd end) { return Ending(true, end); }

    // Whether the attach ends here.
    explicit operator bool() const { return ends_; }
    [[nodiscard]] AttachEnd result() const { return end_; }

  private:
    Ending(bool ends, AttachEnd end) : ends_(ends), end_(end) {}

    bool ends_;
    AttachEnd end_;
};

class AttachLoop {
  public:
    AttachLoop(const AttachRequest& request, UniqueFd socket, sys::SignalPipe& signals,
               const std::string& nonce)
        : id_(request.id), portable_(request.portable), socket_(std::move(socket)),
          signals_(signals), bracket_(nonce, 1), detachKey_(request.detachKey),
          lastConnectMs_(sys::monotonicMs()) {}

    Result<AttachEnd> run() {
        auto result = loop();
        // Whatever ended the attach, an open bracket is closed on screen.
        bracket_.closeOpen(ReplayBracket::State::Closed);
        // The local terminal is handed back with nothing left on; best
        // effort, like the markers.
        SequenceText undo = screen_.undo();
        if (!undo.empty())
            (void)sys::writeAll(1, undo.view());
        return result;
    }

  private:
    Result<AttachEnd> loop() {
        std::array<char, kInputReadSize> input;
        for (;;) {
            int timeout = bracket_.timeoutMs(sys::monotonicMs());
            std::array<pollfd, 3> entries{
                {{0, POLLIN, 0}, {socket_.get(), POLLIN, 0}, {signals_.readFd(), POLLIN, 0}}};
            auto ready = sys::poll(entries, timeout);
            if (!ready)
                return fail(pollError(ready.error()));
            if (*ready == 0) {
                bracket_.quietTimeout();
                continue;
            }

            if (entries[2].revents != 0) {
                char bytes[kSignalReadSize];
                std::size_t got = signals_.drain(bytes).value_or(0);
                std::string_view received(bytes, got);
                if (received.find('T') != std::string_view::npos)
                    return AttachEnd{AttachEnd::How::Interrupted};
                if (received.find('W') != std::string_view::npos)
                    resizePending_ = true;
            }

            if (entries[0].revents != 0) {
                bracket_.localInput();
                auto got = sys::read(0, std::span(input));
                if (!got && got.error() == Error::WouldBlock)
                    return AttachEnd{AttachEnd::How::InputClosed};
                if (!got)
                    return fail(got.error());
                if (*got == 0)
                    return AttachEnd{AttachEnd::How::InputClosed};
                std::string_view bytes(input.data(), *got);
                // Detaching ends the attach exactly like closed input.
                if (detachKey_.detaches(bytes))
                    return AttachEnd{AttachEnd::How::InputClosed};
                while (!write_frame(socket_.get(), FrameType::Input, bytes)) {
                    if (Ending ending = reconnect())
                        return ending.result();
                }
            }

            if (entries[1].revents != 0) {
                auto flow = TRY(receive());
                if (ending_)
                    return *ending_;
                if (flow == Flow::Reconnect) {
                    if (Ending ending = reconnect())
                        return ending.result();
                }
            }

            if (resizePending_) {
                resizePending_ = false;
                sys::WindowSize size = localWindowSize();
                if (!write_frame(socket_.get(), FrameType::Resize,
                                 encodeWinsize(size.cols, size.rows))) {
                    if (Ending ending = reconnect())
                        return ending.result();
                }
            }
        }
    }

    Result<Flow> receive() {
        std::span<char> room = TRY(buffer_.freeSpace());
        auto got = sys::read(socket_.get(), room);
        if (!got && got.error() == Error::WouldBlock)
            return Flow::Continue;
        if (!got && got.error() != Error::ConnectionResetByPeer)
            return fail(got.error());
        if (!got || *got == 0)
            return Flow::Reconnect;
        buffer_.filled(*got);
        TRY(handleFrames());
        return Flow::Continue;
    }

    Result<> handleFrames() {
        std::size_t offset = 0;
        std::string_view data = buffer_.data();
        while (data.size() - offset >= kFrameHeaderSize) {
            auto whole = frameSizeFromLength(data.data() + offset);
            if (!whole)
                return fail(Error::InvalidFrame);
            if (data.size() - offset < *whole)
                break;
            auto type = static_cast<FrameType>(static_cast<std::uint8_t>(data[offset + 4]));
            std::string_view payload =
                data.substr(offset + kFrameHeaderSize, *whole - kFrameHeaderSize);
            offset += *whole;
            TRY(handleFrame(type, payload));
            if (ending_)
                return {};
        }
        buffer_.consume(offset);
        return {};
    }

    Result<> handleFrame(FrameType type, std::string_view payload) {
        switch (type) {
        case FrameType::Output: {
            bracket_.beforeOutput();
            if (auto written = sys::writeAll(1, payload); !written)
                return fail(written.error());
            screen_.feed(payload);
            bracket_.afterOutput(sys::monotonicMs());
            return {};
        }
        case FrameType::ReplayStart:
            bracket_.replayStart();
            return {};
        case FrameType::ReplayEnd:
            bracket_.replayEnd();
            return {};
        case FrameType::Exit: {
            std::uint32_t status = payload.size() >= 4 ? getU32(payload.data()) : 1;
            int shellStatus = status <= kMaxExitStatus ? static_cast<int>(status) : 1;
            ending_ = AttachEnd{AttachEnd::How::ShellExited, shellStatus};
            return {};
        }
        case FrameType::VersionMismatch: {
            unsigned keeperVersion = payload.empty() ? 0 : static_cast<std::uint8_t>(payload[0]);
            ending_ = AttachEnd{AttachEnd::How::VersionMismatch, 0, keeperVersion};
            return {};
        }
        default:
            return {};
        }
    }

    // Reconnects with back-off; nothing on success, else how the attach
    // ends. A takeover refusal ends it with its own error: a newer owner
    // holds the session and retrying cannot succeed, so the caller must hear
    // "refused" rather than "connection lost". Every other failure ends the
    // attach as interrupted.
    Ending reconnect() {
        auto connected = reconnectSeries();
        if (connected)
            return Ending::none();
        if (isTakeoverRefusal(connected.error()))
            return Ending::with(AttachEnd{AttachEnd::How::Refused, 0, 0, refusal_});
        return Ending::with(AttachEnd{AttachEnd::How::Interrupted});
    }

    Result<> reconnectSeries() {
        std::int64_t now = sys::monotonicMs();
        if (now - lastConnectMs_ > kReconnectResetMs)
            attempts_ = 0;
        bracket_.closeOpen(ReplayBracket::State::Nothing);
        buffer_.clear();
        socket_.reset();
        for (;;) {
            if (attempts_ >= kMaxReconnectAttempts)
                return fail(Error::ReconnectLimitReached);
            int delay = std::min(kReconnectBaseDelayMs << std::min(attempts_, kReconnectMaxShift),
                                 kReconnectMaxDelayMs);
            ++attempts_;
            TRY(waitBeforeRetry(delay));
            auto connected = connectAndGreet(id_, portable_, refusal_);
            if (connected) {
                socket_ = std::move(*connected);
                lastConnectMs_ = sys::monotonicMs();
                return {};
            }
            if (isTakeoverRefusal(connected.error()))
                return fail(connected.error());
        }
    }

    // Sleeps on the signal pipe so that a "T" interrupts the wait.
    Result<> waitBeforeRetry(int delayMs) {
        std::int64_t deadline = sys::monotonicMs() + delayMs;
        for (;;) {
            std::int64_t left = deadline - sys::monotonicMs();
            if (left <= 0)
                return {};
            pollfd entry{signals_.readFd(), POLLIN, 0};
            auto ready = sys::poll(std::span(&entry, 1), static_cast<int>(left));
            if (!ready || *ready == 0)
                continue;
            char bytes[kSignalReadSize];
            std::size_t got = signals_.drain(bytes).value_or(0);
            std::string_view received(bytes, got);
            if (received.find('T') != std::string_view::npos)
                return fail(Error::Interrupted);
            if (received.find('W') != std::string_view::npos)
                resizePending_ = true;
        }
    }

    std::string_view id_;
    const PortableMetadata& portable_;
    UniqueFd socket_;
    sys::SignalPipe& signals_;
    ReplayBracket bracket_;
    DetachKey detachKey_;
    // What the keeper's output has turned on in the local terminal.
    TerminalState screen_;
    ReceiveBuffer buffer_;
    std::int64_t lastConnectMs_;
    int attempts_ = 0;
    bool resizePending_ = false;
    std::optional<AttachEnd> ending_;
    TakeoverRefusal refusal_;
};

} // namespace

Result<AttachEnd> attachSession(const AttachRequest& request) {
    // A keeper that vanishes mid-write must end in a reconnect or a named
    // error, never kill the client: writes then fail with BrokenPipe.
    TRY(sys::setSignalIgnored(SIGPIPE));
    TakeoverRefusal refusal;
    auto connected = connectAndGreet(request.id, request.portable, refusal);
    if (!connected && isTakeoverRefusal(connected.error()))
        return AttachEnd{AttachEnd::How::Refused, 0, 0, refusal};
    UniqueFd socket = TRY(std::move(connected));
    RawTerminal terminal = TRY(RawTerminal::enter());
    auto signals = sys::SignalPipe::create();
    if (!signals)
        return fail(descriptorCreationError(signals.error()));
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        TRY(signals->route(signal, 'T'));
    TRY(signals->route(SIGWINCH, 'W'));
    std::string nonce = TRY(replayNonce());

    AttachLoop loop(request, std::move(socket), *signals, nonce);
    return loop.run();
}

} // namespace tovel
