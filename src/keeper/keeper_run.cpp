// The keeper's start-up, in order: abstract name, lock, socket, PTY and
// shell, the listening line, metadata, signals, the ready byte; then the
// event loop, and after a normal end the removal of the session's remaining
// files.
#include "keeper/keeper_run.hpp"

#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "client/protocol/keeper_arguments.hpp"
#include "client/protocol/session_address.hpp"
#include "keeper/keeper_loop.hpp"
#include "keeper/self_heal.hpp"
#include "keeper/session_lock.hpp"
#include "platform/clock.hpp"
#include "platform/memory.hpp"
#include "platform/process.hpp"
#include "platform/signal.hpp"
#include "platform/socket.hpp"
#include "platform/spawn.hpp"
#include "platform/system.hpp"

#include <csignal>

namespace tovel {

namespace {

constexpr int kListenBacklog = 8;

void reportReadiness(int readyFd, char byte) {
    (void)sys::write(readyFd, std::string_view(&byte, 1));
    UniqueFd closing(readyFd);
}

// The listening socket, removed again unless start-up gets through.
class ListeningSocket {
  public:
    ListeningSocket(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}
    ListeningSocket(ListeningSocket&&) = default;
    ~ListeningSocket() {
        if (fd_.valid())
            (void)sys::unlink(path_);
    }
    UniqueFd release() { return std::move(fd_); }

  private:
    UniqueFd fd_;
    std::string path_;
};

Result<ListeningSocket> listenOnSessionSocket(const std::string& path) {
    // The session's lock is held, so a socket file left here belongs to a
    // keeper that died without cleaning up.
    UniqueFd fd = TRY(bindSessionSocket(path));
    return ListeningSocket(std::move(fd), path);
}

// A keeper of this user listens within moments of binding its name; a
// name still refusing connections after this long is not a keeper's.
constexpr int kNameProbes = 5;
constexpr std::int64_t kNameProbeIntervalMs = 10;

// The name no file clean-up can remove; holding it makes this keeper the
// one keeper of the id, whatever happened to the runtime directory. Any
// local user can bind it first, listening or not: that must not stop the
// owner's session, which then has its lock to stay unique and its socket
// file to be reached by (no listener at all is returned).
Result<UniqueFd> listenOnAbstractName(std::string_view id) {
    std::string directory = TRY(runtimeDir());
    std::string name = abstractSessionName(directory, id);
    for (int probe = 0; probe < kNameProbes; ++probe) {
        auto fd = sys::listenAbstract(name, kListenBacklog);
        if (fd)
            return std::move(*fd);
        if (fd.error() != Error::AddressInUse)
            return fail(fd.error());
        auto holder = connectAbstractName(name);
        if (holder) {
            auto peer = sys::peerUid(holder->get());
            if (!peer || *peer == sys::getuid())
                return fail(Error::SessionAlreadyRunning);
            break;
        }
        // A full backlog a second long is no keeper's.
        if (holder.error() == Error::WouldBlock)
            break;
        // Refused: a keeper between binding and listening, a name just
        // let go of, or a socket that will never listen.
        if (holder.error() != Error::ConnectionRefused)
            return fail(Error::SessionAlreadyRunning);
        (void)sys::sleepMs(kNameProbeIntervalMs);
    }
    return UniqueFd{};
}

Result<std::string> recordedDirectory(std::string_view cwd) {
    if (!cwd.empty() && cwd.front() == '/')
        return std::string(cwd);
    std::string here = TRY(sys::getcwd());
    return cwd.empty() ? here : joinPath(here, cwd);
}

Result<std::unique_ptr<KeeperLoop>> startUp(std::string_view id, const SpawnOptions& options) {
    UniqueFd abstract = TRY(listenOnAbstractName(id));
    auto lock = acquireSessionLock(id);
    if (!lock)
        return fail(lock.error() == Error::WouldBlock ? Error::SessionAlreadyRunning
                                                      : lock.error());
    // Said only now: a keeper that is not the session's writes nothing.
    if (!abstract.valid())
        logWarning(LogScope::Keeper, "abstract name held by another user; listening at ", id,
                   ".sock only");

    std::string socketPath = TRY(sessionPath(id, ".sock"));
    std::string metadataPath = TRY(sessionPath(id, ".meta"));
    ListeningSocket listener = TRY(listenOnSessionSocket(socketPath));

    ShellProcess shell = TRY(startShell(options.cols, options.rows, options.cmd, options.cwd));
    logInfo(LogScope::Keeper, "keeper listening session=", id, " pid=", sys::getpid(),
            " sock=", socketPath);

    SessionMetadata metadata;
    metadata.keeperPid = sys::getpid();
    metadata.shellPid = shell.pid;
    metadata.cols = options.cols;
    metadata.rows = options.rows;
    metadata.startedAt = sys::realtimeSeconds();
    // Until someone attaches, the session counts as last used when it
    // started, so idle times measured from this field stay meaningful.
    metadata.lastAttachedAt = metadata.startedAt;
    metadata.portable = options.portable;
    auto directory = recordedDirectory(options.cwd);
    metadata.cwd = directory ? *directory : std::string();
    auto written = writeSessionMetadata(metadataPath, metadata);
    auto signals = sys::SignalPipe::create();
    Result<> routed = signals ? Result<>{} : fail(signals.error());
    if (routed)
        routed = signals->route(SIGCHLD, 'C');
    if (routed)
        routed = signals->route(SIGTERM, 'T');
    if (routed)
        routed = signals->route(SIGINT, 'T');
    if (routed)
        routed = sys::setSignalIgnored(SIGPIPE);
    if (!written || !routed) {
        killGroupAndReap(shell.pid);
        (void)sys::unlink(metadataPath);
        return fail(!written ? written.error() : routed.error());
    }

    SelfHeal selfHeal(std::string(id), socketPath, std::move(*lock), sys::monotonicMs());
    return std::make_unique<KeeperLoop>(
        KeeperListeners{listener.release(), std::move(abstract)}, std::move(shell),
        std::move(*signals), KeeperFiles{socketPath, metadataPath}, metadata, std::move(selfHeal));
}

// After a normal end nothing of the session is worth keeping (the loop has
// removed the socket and the metadata). The lock file goes last, while it is
// still held, so a keeper starting now cannot lock it before it is gone.
void removeEndedSessionFiles(std::string_view id) {
    for (std::string_view suffix : {".log", ".log.1", ".lock"}) {
        if (auto path = sessionPath(id, suffix))
            (void)sys::unlink(*path);
    }
}

} // namespace

Result<int> runKeeper(std::string_view id, const SpawnOptions& options, int readyFd) {
    // The ready descriptor was inherited across this program's exec; the
    // shell must not inherit it too.
    (void)sys::setCloseOnExec(readyFd, true);
    sys::returnLargeBuffersToSystem();
    auto started = startUp(id, options);
    if (!started) {
        reportReadiness(readyFd, kKeeperFailedByte);
        return fail(started.error());
    }
    reportReadiness(readyFd, kKeeperReadyByte);
    // The loop (and with it the lock) lives until the files are gone.
    std::uint32_t status = (*started)->run();
    removeEndedSessionFiles(id);
    return static_cast<int>(status & 0xFF);
}

} // namespace tovel
