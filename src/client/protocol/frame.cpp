// Frame encoding and the blocking frame helpers.
#include "client/protocol/frame.hpp"

#include "platform/socket.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <poll.h>

namespace tovel {

void putU16(char* out, std::uint16_t value) {
    out[0] = static_cast<char>(value >> 8);
    out[1] = static_cast<char>(value);
}

void putU32(char* out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<char>(value >> (24 - 8 * i));
}

void putU64(char* out, std::uint64_t value) {
    for (int i = 0; i < 8; ++i)
        out[i] = static_cast<char>(value >> (56 - 8 * i));
}

std::uint16_t getU16(const char* in) {
    return static_cast<std::uint16_t>((static_cast<unsigned char>(in[0]) << 8) |
                                      static_cast<unsigned char>(in[1]));
}

std::uint32_t getU32(const char* in) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = (value << 8) | static_cast<unsigned char>(in[i]);
    return value;
}

std::uint64_t getU64(const char* in) {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i)
        value = (value << 8) | static_cast<unsigned char>(in[i]);
    return value;
}

void encodeFrameHeader(char* out, FrameType type, std::size_t payloadLength) {
    putU32(out, static_cast<std::uint32_t>(payloadLength + 1));
    out[4] = static_cast<char>(type);
}

std::string encodeFrame(FrameType type, std::string_view payload) {
    std::string frame(kFrameHeaderSize, '\0');
    encodeFrameHeader(frame.data(), type, payload.size());
    frame.append(payload);
    return frame;
}

std::string encodeWinsize(std::uint16_t cols, std::uint16_t rows) {
    std::string payload(4, '\0');
    putU16(payload.data(), cols);
    putU16(payload.data() + 2, rows);
    return payload;
}

Result<UniqueFd> connectSocketPath(std::string_view path) {
    if (path.size() >= kUnixPathCapacity)
        return fail(Error::PathTooLong);
    return sys::connectUnix(path);
}

Result<std::size_t> frameSizeFromLength(const char* head) {
    std::uint32_t length = getU32(head);
    if (length == 0 || length > kMaxFrameLength)
        return fail(Error::InvalidFrameLength);
    return std::size_t{length} + kFrameLengthSize;
}

Result<> wait_fd(int fd, short events) {
    pollfd entry{fd, events, 0};
    for (;;) {
        entry.revents = 0;
        TRY(sys::poll(std::span(&entry, 1), -1));
        if (entry.revents & (POLLERR | POLLHUP | POLLNVAL))
            return fail(Error::BrokenPipe);
        if (entry.revents & events)
            return {};
    }
}

namespace {

// One call for header and payload when the peer has room: a frame never
// waits on a second system call, and the keeper reads it whole.
Result<> writeCompletely(int fd, std::string_view header, std::string_view payload) {
    while (!header.empty() || !payload.empty()) {
        std::string_view pieces[] = {header, payload};
        auto written = sys::writev(fd, pieces);
        if (!written && written.error() == Error::WouldBlock) {
            TRY(wait_fd(fd, POLLOUT));
            continue;
        }
        if (!written)
            return fail(written.error());
        if (*written == 0)
            return fail(Error::BrokenPipe);
        std::size_t fromHeader = std::min(*written, header.size());
        header.remove_prefix(fromHeader);
        payload.remove_prefix(*written - fromHeader);
    }
    return {};
}

// Reads exactly `out.size()` bytes. Returns how many arrived before end of
// stream (fewer than requested only at end of stream).
Result<std::size_t> readCompletely(int fd, std::span<char> out) {
    std::size_t filled = 0;
    while (filled < out.size()) {
        auto got = sys::read(fd, out.subspan(filled));
        if (!got && got.error() == Error::WouldBlock) {
            TRY(wait_fd(fd, POLLIN));
            continue;
        }
        if (!got)
            return fail(got.error());
        if (*got == 0)
            break;
        filled += *got;
    }
    return filled;
}

} // namespace

Result<> write_frame(int fd, FrameType type, std::string_view payload) {
    if (payload.size() >= kMaxFrameLength)
        return fail(Error::FrameTooLarge);
    char header[kFrameHeaderSize];
    encodeFrameHeader(header, type, payload.size());
    return writeCompletely(fd, std::string_view(header, kFrameHeaderSize), payload);
}

Result<std::optional<Frame>> read_frame(int fd) {
    char header[kFrameHeaderSize];
    std::size_t got = TRY(readCompletely(fd, header));
    if (got == 0)
        return std::optional<Frame>();
    if (got < kFrameHeaderSize)
        return fail(Error::UnexpectedEof);
    std::size_t frameSize = TRY(frameSizeFromLength(header));
    Frame frame;
    frame.type = static_cast<std::uint8_t>(header[4]);
    if (frameSize > kFrameHeaderSize) {
        frame.payload.resize(frameSize - kFrameHeaderSize);
        std::size_t read = TRY(readCompletely(fd, frame.payload));
        if (read < frame.payload.size())
            return fail(Error::UnexpectedEof);
    }
    return std::optional<Frame>(std::move(frame));
}

} // namespace tovel
