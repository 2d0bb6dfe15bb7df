// The client-keeper wire protocol: frames of a 4-byte big-endian length
// (counting the type byte), one type byte and the payload, over the
// session's Unix stream socket; and the blocking helpers that the short
// exchanges (hello, takeover, shutdown) use.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::uint8_t kProtocolVersion = 1;
constexpr std::size_t kFrameHeaderSize = 5;
constexpr std::size_t kFrameLengthSize = 4;
// Largest length field: payloads are at most 0x3FFFFF bytes.
constexpr std::uint32_t kMaxFrameLength = 0x400000;
// The keeper reads at most this many payload bytes in one client frame.
constexpr std::size_t kMaxClientPayload = 16384;
constexpr std::size_t kUnixPathCapacity = 108;

enum class FrameType : std::uint8_t {
    Attach = 1,
    Input = 2,
    Resize = 3,
    Output = 4,
    Exit = 5,
    Ping = 6,
    Pong = 7,
    Hello = 8,
    VersionMismatch = 9,
    ReplayStart = 10,
    ReplayEnd = 11,
    Shutdown = 12,
    ShutdownAck = 13,
    PortableTakeover = 14,
    PortableTakeoverAccepted = 15,
    PortableTakeoverRejected = 16,
};

struct Frame {
    std::uint8_t type = 0;
    std::string payload;
};

// Big-endian helpers for headers and payloads.
void putU16(char* out, std::uint16_t value);
void putU32(char* out, std::uint32_t value);
void putU64(char* out, std::uint64_t value);
[[nodiscard]] std::uint16_t getU16(const char* in);
[[nodiscard]] std::uint32_t getU32(const char* in);
[[nodiscard]] std::uint64_t getU64(const char* in);

// The 5-byte header of a frame carrying `payloadLength` bytes.
void encodeFrameHeader(char* out, FrameType type, std::size_t payloadLength);
// A whole frame as one string (header and payload).
[[nodiscard]] std::string encodeFrame(FrameType type, std::string_view payload);
// Cols then rows, as Attach and Resize carry them.
[[nodiscard]] std::string encodeWinsize(std::uint16_t cols, std::uint16_t rows);

// Connects to the socket at `path` (close-on-exec). PathTooLong for a path
// of 108 bytes or more; connect failures by their errno name.
[[nodiscard]] Result<UniqueFd> connectSocketPath(std::string_view path);

// Judges a frame's 4-byte length field at `head`: the whole frame's size in
// bytes (header and payload), or InvalidFrameLength for a length of 0 or
// above kMaxFrameLength. The four bytes alone decide it.
[[nodiscard]] Result<std::size_t> frameSizeFromLength(const char* head);

// Polls one descriptor without timeout until one of `events` is reported.
// POLLERR, POLLHUP or POLLNVAL give BrokenPipe.
[[nodiscard]] Result<> wait_fd(int fd, short events);

// Header, then payload, each written completely. FrameTooLarge (nothing
// written) for a payload of 0x400000 bytes or more.
[[nodiscard]] Result<> write_frame(int fd, FrameType type, std::string_view payload);

// One whole frame; nullopt when the peer closed before the first byte.
[[nodiscard]] Result<std::optional<Frame>> read_frame(int fd);

} // namespace tovel
