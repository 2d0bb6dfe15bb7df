// IPv4 TCP on the loopback interface: the listening socket of `serve` and
// accepting its connections.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstdint>
#include <span>
#include <string_view>

namespace tovel::sys {

// A close-on-exec IPv4 stream socket.
[[nodiscard]] Result<UniqueFd> tcpSocket();
[[nodiscard]] Result<> setReuseAddress(int fd);
// Binds to 127.0.0.1 (the literal address; no name lookup).
[[nodiscard]] Result<> bindLoopback(int fd, std::uint16_t port);
// The locally bound port (getsockname).
[[nodiscard]] Result<std::uint16_t> boundPort(int fd);
[[nodiscard]] Result<> listen(int fd, int backlog);
// accept4 with close-on-exec. The new socket blocks, whatever the listener
// does; a non-blocking listener with nothing pending gives WouldBlock.
[[nodiscard]] Result<UniqueFd> accept(int listenFd);
// SO_SNDTIMEO: a blocking write that makes no progress for this long fails
// with WouldBlock.
[[nodiscard]] Result<> setSendTimeout(int fd, int seconds);
enum class MoreToCome { No, Yes };
// send() without SIGPIPE; with MoreToCome::Yes (MSG_MORE) the bytes may wait
// to share a segment with the next send. Returns the bytes taken.
[[nodiscard]] Result<std::size_t> send(int fd, std::string_view bytes, MoreToCome more);
// recv with MSG_DONTWAIT: what has arrived, WouldBlock when nothing has, 0
// at the end of the stream.
[[nodiscard]] Result<std::size_t> receiveNow(int fd, std::span<char> buffer);
// TCP_DEFER_ACCEPT: a connection is handed to accept only once its first
// bytes (or its end) have arrived, or after about this many seconds.
[[nodiscard]] Result<> setDeferAccept(int fd, int seconds);

} // namespace tovel::sys
