// The keeper's single-threaded event loop: one poll over the two listening
// sockets, the PTY master, the signal pipe and up to 32 clients, until the
// shell has exited and every attached client has been told its status. Its
// timers: handshake deadlines, the shutdown escalation and the periodic
// check of the session's files.
#pragma once

#include "cli/session_metadata.hpp"
#include "keeper/keeper_client.hpp"
#include "keeper/replay_ring.hpp"
#include "keeper/self_heal.hpp"
#include "keeper/shell_start.hpp"
#include "platform/signal.hpp"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovel {

constexpr std::size_t kMaxClients = 32;
constexpr std::size_t kPtyReadSize = 65536;
constexpr std::size_t kPtyInputBound = 1048576;

// The keeper listens at its socket path and at its abstract name; both
// speak the same protocol.
struct KeeperListeners {
    UniqueFd path;
    UniqueFd abstract;
};

struct KeeperFiles {
    std::string socketPath;
    std::string metadataPath;
};

// The shell's exit as the Exit frame carries it: the exit code, or for a
// death by signal the raw wait status with every bit from bit 7 up set.
[[nodiscard]] std::uint32_t encodeExitStatus(int waitStatus);

class KeeperLoop {
  public:
    KeeperLoop(KeeperListeners listeners, ShellProcess shell, sys::SignalPipe signals,
               KeeperFiles files, SessionMetadata metadata, SelfHeal selfHeal);

    // Runs until the shell has been reaped; returns its encoded status after
    // telling and flushing every client and removing the session's files.
    [[nodiscard]] std::uint32_t run();

  private:
    // Graceful is SIGTERM; a shell still there 2 s later gets a hang-up,
    // and 5 s after that SIGKILL.
    enum class ShellSignal { Graceful, Hangup, Forced };
    struct Escalation {
        std::int64_t atMs;
        ShellSignal next;
    };

    [[nodiscard]] int pollTimeout(std::int64_t now) const;
    void handleSignals();
    void reapShell();
    void signalShell(ShellSignal kind);
    void escalateShutdown(std::int64_t now);
    void acceptClient(int listener);
    void repairSessionFiles(std::int64_t now);
    void readPty();
    void writePtyInput();
    void readClient(KeeperClient& client, short revents);
    [[nodiscard]] Result<> handleFrame(KeeperClient& client, FrameType type,
                                       std::string_view payload);
    [[nodiscard]] Result<> handleHello(KeeperClient& client, std::string_view payload);
    [[nodiscard]] Result<> handleAttach(KeeperClient& client, std::string_view payload);
    [[nodiscard]] Result<> handleResize(KeeperClient& client, std::string_view payload);
    [[nodiscard]] Result<> handleShutdown(KeeperClient& client, std::string_view payload);
    [[nodiscard]] Result<> handleTakeover(KeeperClient& client, std::string_view payload);
    void applySize(std::uint16_t cols, std::uint16_t rows);
    void rewriteMetadata();
    // Queues one frame, or drops the client when its output bound is hit.
    [[nodiscard]] Result<> queueFrame(KeeperClient& client, FrameType type,
                                      std::string_view payload);
    // Sends an Output frame at once when nothing is queued, queueing what
    // the socket does not take.
    void sendOutput(KeeperClient& client, std::string_view payload);
    // Writes what the socket takes of the queue; a failure drops the client.
    void flushClient(KeeperClient& client);
    // The one path to a client's socket: writes as much of its queue, then
    // of a frame not yet queued, as the socket takes, and queues the rest
    // of that frame. A full socket is not an error.
    [[nodiscard]] Result<> writeClient(KeeperClient& client, std::string_view header = {},
                                       std::string_view payload = {});
    void reportOutputFailure(KeeperClient& client, Error error);
    // Only the keeper's own user (and root) may use the session.
    [[nodiscard]] bool admitPeer(int fd);
    void dropClient(KeeperClient& client);
    void removeDroppedClients();
    void finish();

    KeeperListeners listeners_;
    SelfHeal selfHeal_;
    ShellProcess shell_;
    sys::SignalPipe signals_;
    KeeperFiles files_;
    SessionMetadata metadata_;
    ReplayRing ring_;
    ByteQueue ptyInput_{kPtyInputBound};
    std::vector<std::unique_ptr<KeeperClient>> clients_;
    std::unique_ptr<char[]> readBuffer_;
    bool terminationRequested_ = false;
    bool terminalGone_ = false;
    std::optional<ShellSignal> pendingShutdown_;
    std::optional<Escalation> escalation_;
    std::optional<std::uint32_t> exitStatus_;
    // Another user may connect as often as they like: one line a minute
    // says so without washing the owner's own lines out of the log.
    struct StrangerLines {
        std::optional<std::int64_t> lastAtMs;
        std::uint64_t unlogged = 0;
    } strangers_;
};

} // namespace tovel
