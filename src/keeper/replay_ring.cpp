// The replay ring.
#include "keeper/replay_ring.hpp"

#include <cstring>

namespace tovel {

// Left uninitialised on purpose: untouched pages cost an idle keeper nothing.
ReplayRing::ReplayRing() : bytes_(std::make_unique_for_overwrite<char[]>(kCapacity)) {}

void ReplayRing::evict(std::string_view incoming) {
    std::size_t held = size();
    if (held + incoming.size() <= kCapacity)
        return;
    std::size_t overflow = held + incoming.size() - kCapacity;
    auto [older, newer] = pieces();
    for (std::string_view piece : {older, newer, incoming}) {
        std::string_view gone = piece.substr(0, overflow);
        oldest_.feed(gone);
        overflow -= gone.size();
    }
}

void ReplayRing::append(std::string_view bytes) {
    evict(bytes);
    if (bytes.size() >= kCapacity) {
        // Only the newest kCapacity bytes survive; lay them out from zero.
        std::memcpy(bytes_.get(), bytes.data() + bytes.size() - kCapacity, kCapacity);
        position_ = 0;
        wrapped_ = true;
        return;
    }
    std::size_t room = kCapacity - position_;
    if (bytes.size() < room) {
        std::memcpy(bytes_.get() + position_, bytes.data(), bytes.size());
        position_ += bytes.size();
        return;
    }
    std::memcpy(bytes_.get() + position_, bytes.data(), room);
    std::size_t rest = bytes.size() - room;
    std::memcpy(bytes_.get(), bytes.data() + room, rest);
    position_ = rest;
    wrapped_ = true;
}

std::pair<std::string_view, std::string_view> ReplayRing::pieces() const {
    if (!wrapped_)
        return {std::string_view(bytes_.get(), position_), {}};
    return {std::string_view(bytes_.get() + position_, kCapacity - position_),
            std::string_view(bytes_.get(), position_)};
}

ReplayRing::Replay ReplayRing::replay() const {
    auto [older, newer] = pieces();
    TerminalState start = oldest_;
    older.remove_prefix(start.feedToBoundary(older));
    if (older.empty())
        newer.remove_prefix(start.feedToBoundary(newer));
    Replay replay{start.preamble(), older, newer};
    // Only an attach needs the state at the newest byte: one pass over the
    // ring then is cheaper than following every byte as it arrives.
    start.feed(older);
    start.feed(newer);
    replay.alternateScreen = start.alternateScreen();
    return replay;
}

} // namespace tovel
