// Speaking the client-keeper wire protocol inside tests: the frame types and
// replay markers, a small client for driving a real keeper, and a fake keeper
// for driving the real clients.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tovel::test {

// Frame type bytes.
namespace frame {
inline constexpr std::uint8_t Attach = 1, Input = 2, Resize = 3, Output = 4, Exit = 5, Ping = 6,
                              Pong = 7, Hello = 8, VersionMismatch = 9, ReplayStart = 10,
                              ReplayEnd = 11, Shutdown = 12, ShutdownAck = 13, Takeover = 14,
                              TakeoverAccepted = 15, TakeoverRejected = 16;
} // namespace frame

// The attach client's replay bracket on the terminal: prefix, 32-digit
// nonce, then "\x1b\\".
inline const std::string kReplayStartPrefix = "\x1b]7727;action=pty-replay-start;value=";
inline const std::string kReplayEndPrefix = "\x18\x1b]7727;action=pty-replay-end;value=";
// The nonce of the first start marker in `output`, or empty.
std::string replayNonce(const std::string& output);

struct WireFrame {
    std::uint8_t type = 0;
    std::string payload;
};

std::string frameBytes(std::uint8_t type, const std::string& payload = {});
std::string winsizePayload(std::uint16_t cols, std::uint16_t rows);
std::string u32Payload(std::uint32_t value);
// A Hello frame carrying `version`.
std::string helloBytes(std::uint8_t version = 1);

// One connected Unix stream socket with frame helpers.
class WireConnection {
  public:
    explicit WireConnection(int fd = -1) : fd_(fd) {}
    static WireConnection connectTo(const std::string& path);
    WireConnection(WireConnection&& other) noexcept;
    ~WireConnection();

    [[nodiscard]] bool connected() const { return fd_ >= 0; }
    [[nodiscard]] int fd() const { return fd_; }
    bool send(const std::string& bytes);
    bool sendFrame(std::uint8_t type, const std::string& payload = {});
    // The next whole frame, or nullopt at end of stream or deadline.
    std::optional<WireFrame>
    readFrame(std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));
    // True when the peer closes within the deadline (frames before it are
    // discarded).
    bool closedWithin(std::chrono::milliseconds deadline);
    void close();

  private:
    bool fill(std::size_t want, std::chrono::steady_clock::time_point end);
    int fd_ = -1;
    std::string pending_;
};

// Hello then Attach, the greeting of an attaching client.
WireConnection attachTo(const std::string& socketPath, std::uint16_t cols = 80,
                        std::uint16_t rows = 24);

// Reads frames until `type` arrives; collects Output payloads on the way.
struct Collected {
    std::string output;
    bool found = false;
    std::string payload; // of the frame that ended the wait
};
Collected collectUntil(WireConnection& connection, std::uint8_t type,
                       std::chrono::milliseconds deadline = std::chrono::milliseconds(10000));
// Reads frames until the Output payloads collected contain `needle`.
Collected collectOutput(WireConnection& connection, const std::string& needle,
                        std::chrono::milliseconds deadline = std::chrono::milliseconds(10000));

// A listening socket standing in for a keeper.
class FakeKeeper {
  public:
    explicit FakeKeeper(const std::string& socketPath);
    ~FakeKeeper();
    FakeKeeper(const FakeKeeper&) = delete;
    FakeKeeper& operator=(const FakeKeeper&) = delete;
    // The next client, or an unconnected value at the deadline.
    WireConnection accept(std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));
    void stopListening();

  private:
    std::string path_;
    int fd_ = -1;
};

} // namespace tovel::test
