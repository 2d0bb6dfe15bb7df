// The server: root checks, the loopback listener, the accept loop with its
// idle timeout, and one detached thread per connection.
#include "serve/server.hpp"

#include "cli/log.hpp"
#include "platform/clock.hpp"
#include "platform/signal.hpp"
#include "platform/system.hpp"
#include "platform/tcp.hpp"
#include "platform/thread.hpp"
#include "serve/connection.hpp"

#include <charconv>
#include <csignal>
#include <new>
#include <sys/stat.h>

namespace tovel {

namespace {

constexpr int kListenBacklog = 128;
constexpr int kIdlePollMs = 1000;
constexpr int kAcceptBurst = 64;
constexpr int kAcceptFailurePauseMs = 50;
constexpr std::size_t kConnectionStackSize = 16 * 1024 * 1024;

// The accepted descriptor travels to its thread in a small heap cell, the
// one allocation a connection costs the accept loop; the thread frees it.
struct ConnectionCell {
    int fd;
    serve::ServeSettings* settings;
};

void* connectionThread(void* raw) {
    ConnectionCell cell = *static_cast<ConnectionCell*>(raw);
    delete static_cast<ConnectionCell*>(raw);
    serve::handleConnection(UniqueFd(cell.fd), *cell.settings, serve::Handling::OwnThread);
    return nullptr;
}

void dispatch(UniqueFd connection, serve::ServeSettings& settings,
              sys::DetachedThreadStarter& threads) {
    auto* cell = new (std::nothrow) ConnectionCell{connection.get(), &settings};
    Result<> started = cell ? threads.start(connectionThread, cell) : fail(Error::OutOfMemory);
    if (started) {
        (void)connection.release();
        return;
    }
    delete cell;
    logWarning(LogScope::Serve, "thread spawn failed (", started.error(), "); serving inline");
    serve::handleConnection(std::move(connection), settings, serve::Handling::Inline);
}

// Accepts what the listener has pending, up to a burst, so that a busy
// server does not pay one poll per connection; the idle check runs between
// bursts.
void acceptPending(int listener, serve::ServeSettings& settings,
                   sys::DetachedThreadStarter& threads) {
    for (int i = 0; i < kAcceptBurst; ++i) {
        auto connection = sys::accept(listener);
        if (!connection) {
            if (connection.error() == Error::WouldBlock)
                return;
            if (connection.error() == Error::ConnectionAborted)
                return;
            // Out of descriptors, say: the connection stays pending and poll
            // reports it again at once. A short pause keeps that from
            // turning into a busy loop of warnings.
            logWarning(LogScope::Serve, "accept failed: ", connection.error());
            (void)sys::sleepMs(kAcceptFailurePauseMs);
            return;
        }
        dispatch(std::move(*connection), settings, threads);
    }
}

std::expected<UniqueFd, serve::ServeEnd> listenOnLoopback(std::uint16_t port,
                                                          std::uint16_t& boundPort) {
    using serve::StartStep;
    auto failed = [](StartStep step, Error error) {
        return std::unexpected(serve::ServeEnd{step, error});
    };
    auto socket = sys::tcpSocket();
    if (!socket)
        return failed(StartStep::Socket, socket.error());
    (void)sys::setReuseAddress(socket->get());
    if (auto bound = sys::bindLoopback(socket->get(), port); !bound)
        return failed(StartStep::Bind, bound.error());
    auto actual = sys::boundPort(socket->get());
    if (!actual)
        return failed(StartStep::BoundPort, actual.error());
    if (auto listening = sys::listen(socket->get(), kListenBacklog); !listening)
        return failed(StartStep::Listen, listening.error());
    // A connection that is reset between poll and accept must not leave the
    // loop blocked in accept past its idle deadline, and a burst of accepts
    // ends when nothing is pending.
    (void)sys::setNonBlocking(socket->get());
    serve::setConnectionTimeouts(socket->get());
    boundPort = *actual;
    return std::move(*socket);
}

// Settings outlive every detached connection thread.
serve::ServeSettings& processSettings() {
    static serve::ServeSettings* settings = new serve::ServeSettings;
    return *settings;
}

// So do the connection threads' kept stacks.
sys::DetachedThreadStarter& connectionThreads() {
    static auto* threads = new sys::DetachedThreadStarter(kConnectionStackSize);
    return *threads;
}

} // namespace

Result<serve::ServeEnd> serve::runServer(const serve::ServeRequest& options) {
    serve::ServeSettings& settings = processSettings();
    settings.browseMode = options.browseMode;
    settings.root = std::string(options.root);
    TRY(sys::setSignalIgnored(SIGPIPE));

    auto real = sys::realpath(options.root);
    if (!real)
        return ServeEnd{StartStep::OpenRoot, real.error()};
    settings.rootRealPath = *real;
    auto status = sys::stat(*real);
    if (!status)
        return ServeEnd{StartStep::StatRoot, status.error()};
    if (!S_ISDIR(status->st_mode))
        return ServeEnd{StartStep::RootNotDirectory, Error::NotDir};

    sys::DetachedThreadStarter& threads = connectionThreads();
    std::uint16_t port = 0;
    auto listening = listenOnLoopback(options.port, port);
    if (!listening)
        return listening.error();
    UniqueFd listener = std::move(*listening);
    char line[48] = "TOVEL_PTYD_SERVE_PORT ";
    std::size_t prefix = std::char_traits<char>::length(line);
    char* end = std::to_chars(line + prefix, line + sizeof line - 1, port).ptr;
    *end++ = '\n';
    TRY(sys::write(1, std::string_view(line, static_cast<std::size_t>(end - line))));
    logInfo(LogScope::Serve, "serving ", options.root, " on 127.0.0.1:", port);

    settings.lastActivityMs.store(sys::monotonicMs());
    std::int64_t idleLimitMs = std::int64_t{options.idleTimeoutSeconds} * 1000;
    for (;;) {
        int timeout = -1;
        if (idleLimitMs > 0) {
            if (sys::monotonicMs() - settings.lastActivityMs.load() >= idleLimitMs)
                break;
            timeout = kIdlePollMs;
        }
        pollfd entry{listener.get(), POLLIN, 0};
        auto ready = sys::poll(std::span(&entry, 1), timeout);
        if (!ready) {
            logWarning(LogScope::Serve, "poll failed: ", ready.error());
            continue;
        }
        if (*ready == 0)
            continue;
        acceptPending(listener.get(), settings, threads);
    }
    return ServeEnd{};
}

} // namespace tovel
