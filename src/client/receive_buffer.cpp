// The attach client's receive buffer.
#include "client/receive_buffer.hpp"

#include "client/protocol/frame.hpp"

#include <algorithm>

namespace tovel {

Result<std::span<char>> ReceiveBuffer::freeSpace() {
    if (used_ == bytes_.size() && used_ >= kFrameHeaderSize) {
        auto whole = frameSizeFromLength(bytes_.data());
        if (!whole)
            return fail(Error::InvalidFrame);
        if (*whole > bytes_.size())
            bytes_.resize(*whole);
    }
    return std::span<char>(bytes_.data() + used_, bytes_.size() - used_);
}

void ReceiveBuffer::consume(std::size_t count) {
    std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(count),
              bytes_.begin() + static_cast<std::ptrdiff_t>(used_), bytes_.begin());
    used_ -= count;
    if (bytes_.size() > kReceiveBufferSize && used_ <= kReceiveBufferSize) {
        bytes_.resize(kReceiveBufferSize);
        bytes_.shrink_to_fit();
    }
}

void ReceiveBuffer::clear() {
    used_ = 0;
    if (bytes_.size() > kReceiveBufferSize) {
        bytes_.resize(kReceiveBufferSize);
        bytes_.shrink_to_fit();
    }
}

} // namespace tovel
