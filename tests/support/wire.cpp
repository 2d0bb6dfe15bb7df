// Wire-protocol helpers for tests.
#include "support/wire.hpp"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "support/test_support.hpp"

namespace tovel::test {

namespace {

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    return address;
}

// Reads frames until `done` holds for one; collects Output payloads on the way.
template <typename Done>
Collected collect(WireConnection& connection, std::chrono::milliseconds deadline, Done done) {
    Collected collected;
    auto end = std::chrono::steady_clock::now() + deadline;
    while (auto got = connection.readFrame(std::chrono::milliseconds(millisecondsUntil(end)))) {
        if (got->type == frame::Output)
            collected.output += got->payload;
        if (done(*got, collected)) {
            collected.found = true;
            collected.payload = got->payload;
            break;
        }
    }
    return collected;
}

} // namespace

std::string frameBytes(std::uint8_t type, const std::string& payload) {
    return u32Payload(static_cast<std::uint32_t>(payload.size() + 1)) + static_cast<char>(type) +
           payload;
}

std::string u32Payload(std::uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string winsizePayload(std::uint16_t cols, std::uint16_t rows) {
    return u32Payload(static_cast<std::uint32_t>(cols) << 16 | rows);
}

std::string helloBytes(std::uint8_t version) {
    return frameBytes(frame::Hello, std::string(1, static_cast<char>(version)));
}

std::string replayNonce(const std::string& output) {
    std::size_t at = output.find(kReplayStartPrefix);
    return at == std::string::npos ? std::string()
                                   : output.substr(at + kReplayStartPrefix.size(), 32);
}

WireConnection WireConnection::connectTo(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = addressOf(path);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return WireConnection();
    }
    return WireConnection(fd);
}

WireConnection::WireConnection(WireConnection&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), pending_(std::move(other.pending_)) {}

WireConnection::~WireConnection() {
    close();
}

void WireConnection::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

bool WireConnection::send(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool WireConnection::sendFrame(std::uint8_t type, const std::string& payload) {
    return send(frameBytes(type, payload));
}

bool WireConnection::fill(std::size_t want, std::chrono::steady_clock::time_point end) {
    while (pending_.size() < want) {
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, millisecondsUntil(end)) <= 0)
            return false;
        char buffer[65536];
        ssize_t n = ::read(fd_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        pending_.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
}

std::optional<WireFrame> WireConnection::readFrame(std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    if (!fill(5, end))
        return std::nullopt;
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i)
        length = (length << 8) | static_cast<unsigned char>(pending_[i]);
    if (length == 0 || !fill(4 + length, end))
        return std::nullopt;
    WireFrame frame{static_cast<std::uint8_t>(pending_[4]), pending_.substr(5, length - 1)};
    pending_.erase(0, 4 + length);
    return frame;
}

bool WireConnection::closedWithin(std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (fill(pending_.size() + 1, end))
        pending_.clear();
    return millisecondsUntil(end) > 0; // ended before the deadline: closed
}

WireConnection attachTo(const std::string& socketPath, std::uint16_t cols, std::uint16_t rows) {
    WireConnection connection = WireConnection::connectTo(socketPath);
    if (connection.connected())
        connection.send(helloBytes() + frameBytes(frame::Attach, winsizePayload(cols, rows)));
    return connection;
}

Collected collectUntil(WireConnection& connection, std::uint8_t type,
                       std::chrono::milliseconds deadline) {
    return collect(connection, deadline,
                   [&](const WireFrame& f, const Collected&) { return f.type == type; });
}

Collected collectOutput(WireConnection& connection, const std::string& needle,
                        std::chrono::milliseconds deadline) {
    return collect(connection, deadline, [&](const WireFrame& f, const Collected& collected) {
        std::size_t fresh = f.type == frame::Output ? f.payload.size() + needle.size() : 0;
        std::size_t from = collected.output.size() > fresh ? collected.output.size() - fresh : 0;
        return collected.output.find(needle, from) != std::string::npos;
    });
}

FakeKeeper::FakeKeeper(const std::string& socketPath) : path_(socketPath) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = addressOf(path_);
    ::unlink(path_.c_str());
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd_, 16) != 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

FakeKeeper::~FakeKeeper() {
    stopListening();
}

void FakeKeeper::stopListening() {
    if (fd_ >= 0) {
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    fd_ = -1;
}

WireConnection FakeKeeper::accept(std::chrono::milliseconds deadline) {
    pollfd entry{fd_, POLLIN, 0};
    if (fd_ < 0 || ::poll(&entry, 1, static_cast<int>(deadline.count())) <= 0)
        return WireConnection();
    return WireConnection(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

} // namespace tovel::test
