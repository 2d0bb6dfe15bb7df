// The bounded byte queue.
#include "keeper/byte_queue.hpp"

namespace tovel {

namespace {

// A drained queue keeps at most this much memory, so that a burst (a replay,
// a paste) does not leave the keeper larger for the rest of its life.
constexpr std::size_t kRetainedCapacity = 65536;

} // namespace

Result<> ByteQueue::append(std::string_view first, std::string_view second, Error refusal) {
    std::size_t adding = first.size() + second.size();
    if (adding > room())
        return fail(refusal);
    // Compact before growing: the sent prefix is dead weight.
    if (offset_ > 0 && bytes_.size() + adding > bytes_.capacity()) {
        bytes_.erase(0, offset_);
        offset_ = 0;
    }
    bytes_.append(first);
    bytes_.append(second);
    return {};
}

void ByteQueue::reserve(std::size_t count) {
    if (offset_ > 0) {
        bytes_.erase(0, offset_);
        offset_ = 0;
    }
    bytes_.reserve(bytes_.size() + count);
}

void ByteQueue::consume(std::size_t count) {
    offset_ += count;
    if (offset_ < bytes_.size())
        return;
    offset_ = 0;
    if (bytes_.capacity() > kRetainedCapacity)
        std::string().swap(bytes_);
    else
        bytes_.clear();
}

} // namespace tovel
