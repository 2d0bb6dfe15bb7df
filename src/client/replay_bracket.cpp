// The replay bracket's state machine and markers.
#include "client/replay_bracket.hpp"

#include "platform/system.hpp"

#include <algorithm>

namespace tovel {

ReplayBracket::ReplayBracket(std::string_view nonceHex, int outputFd) : outputFd_(outputFd) {
    start_.reserve(96);
    start_.append("\x1b]7727;action=pty-replay-start;value=").append(nonceHex).append("\x1b\\");
    // CAN first: it aborts any escape sequence the replay left unfinished
    // before the marker's own sequence begins.
    end_.reserve(96);
    end_.append("\x18\x1b]7727;action=pty-replay-end;value=").append(nonceHex).append("\x1b\\");
}

void ReplayBracket::writeMarker(const std::string& marker) {
    (void)sys::writeAll(outputFd_, marker);
}

void ReplayBracket::replayEnd() {
    if (state_ == State::OpenAfterStart)
        writeMarker(end_);
    state_ = State::Closed;
}

void ReplayBracket::beforeOutput() {
    if (state_ == State::Nothing) {
        writeMarker(start_);
        state_ = State::OpenWithoutStart;
    } else if (state_ == State::StartSeen) {
        writeMarker(start_);
        state_ = State::OpenAfterStart;
    }
}

void ReplayBracket::afterOutput(std::int64_t now) {
    if (state_ == State::OpenWithoutStart)
        quietDeadline_ = now + kReplayQuietMs;
}

void ReplayBracket::localInput() {
    if (state_ == State::OpenWithoutStart) {
        writeMarker(end_);
        state_ = State::Closed;
    } else if (state_ == State::Nothing) {
        state_ = State::Closed;
    }
}

int ReplayBracket::timeoutMs(std::int64_t now) {
    if (state_ != State::OpenWithoutStart)
        return -1;
    std::int64_t left = quietDeadline_ - now;
    if (left <= 0) {
        quietTimeout();
        return -1;
    }
    return static_cast<int>(std::min<std::int64_t>(left, 0x7FFFFFFF));
}

void ReplayBracket::quietTimeout() {
    writeMarker(end_);
    state_ = State::Closed;
}

void ReplayBracket::closeOpen(State next) {
    if (state_ == State::OpenAfterStart || state_ == State::OpenWithoutStart)
        writeMarker(end_);
    state_ = next;
}

} // namespace tovel
