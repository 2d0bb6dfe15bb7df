// The replay bracket: private escape markers around replayed scroll-back on
// the terminal, so that the application on the far side can tell replay
// from live output. One random nonce per attach, shared by both markers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::int64_t kReplayQuietMs = 25;

class ReplayBracket {
  public:
    enum class State {
        Nothing,          // no output and no ReplayStart on this connection
        StartSeen,        // ReplayStart received, no output yet
        OpenAfterStart,   // start marker written after ReplayStart
        OpenWithoutStart, // output came first; closes after a quiet period
        Closed,           // all further output is live
    };

    // `outputFd` receives the markers (best effort: failures are ignored).
    ReplayBracket(std::string_view nonceHex, int outputFd);

    [[nodiscard]] State state() const { return state_; }
    [[nodiscard]] const std::string& startMarker() const { return start_; }
    [[nodiscard]] const std::string& endMarker() const { return end_; }

    void replayStart() { state_ = State::StartSeen; }
    void replayEnd();
    // Before output is written.
    void beforeOutput();
    // After output is written at time `now`.
    void afterOutput(std::int64_t now);
    // A keystroke: typing closes an output-first bracket, and typing before
    // any output means no bracket will open.
    void localInput();
    // Milliseconds until the quiet deadline, -1 when there is none. A
    // deadline already passed closes the bracket and returns -1.
    [[nodiscard]] int timeoutMs(std::int64_t now);
    void quietTimeout();
    // Closes an open bracket; the state becomes `next`.
    void closeOpen(State next);

  private:
    void writeMarker(const std::string& marker);
    std::string start_;
    std::string end_;
    int outputFd_;
    State state_ = State::Nothing;
    std::int64_t quietDeadline_ = 0;
};

} // namespace tovel
