// One client connection of the keeper: its socket, the buffer that collects
// incoming frames, its bounded output queue and its place in the handshake.
#pragma once

#include "client/protocol/frame.hpp"
#include "keeper/byte_queue.hpp"
#include "platform/unique_fd.hpp"

#include <array>
#include <cstddef>
#include <cstdint>

namespace tovel {

// Room for one whole Input frame carrying the largest payload a client may
// send, header included.
constexpr std::size_t kClientInputBufferSize = kMaxClientPayload + kFrameHeaderSize;
constexpr std::size_t kClientOutputBound = 8388608;
constexpr int kClientSendBufferSize = 65536;
constexpr std::int64_t kHandshakeDeadlineMs = 2000;

struct KeeperClient {
    explicit KeeperClient(UniqueFd socket, std::int64_t acceptedAt)
        : fd(std::move(socket)), acceptedAtMs(acceptedAt) {}

    UniqueFd fd;
    std::int64_t acceptedAtMs;
    std::array<char, kClientInputBufferSize> input;
    std::size_t inputUsed = 0;
    ByteQueue output{kClientOutputBound};
    bool handshaken = false;
    bool attached = false;
    bool dropped = false; // removed from the table at the end of the wake-up
    // When the socket last accepted output, or the queue last started
    // filling after being empty.
    std::int64_t progressAtMs = 0;
};

} // namespace tovel
