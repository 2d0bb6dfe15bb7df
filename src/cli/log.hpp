// Diagnostics on standard error: log lines with level, scope tag and colour,
// plain message lines, the process-wide re-entrant lock that keeps every
// line whole across threads, and the keeper's capped log file. Writing a line
// allocates nothing, so the forked child of the keeper may log too.
#pragma once

#include "platform/error.hpp"
#include "platform/result.hpp"

#include <charconv>
#include <concepts>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace tovel {

enum class LogLevel { Error, Warning, Info };
enum class LogScope { Keeper, Pty, Serve };

// An errno value printed by its symbolic name without "E" ("NOENT").
struct ErrnoName {
    int value;
};
// An unsigned value printed in lowercase hexadecimal without prefix.
struct Hex {
    std::uint64_t value;
};

// Take and release the process-wide standard-error lock. Re-entrant per
// thread; the last release flushes the 64-byte buffer and wakes one waiter.
void lockStderr();
void unlockStderr();

class StderrLock {
  public:
    StderrLock() { lockStderr(); }
    ~StderrLock() { unlockStderr(); }
    StderrLock(const StderrLock&) = delete;
    StderrLock& operator=(const StderrLock&) = delete;
};

// Appends bytes to the standard-error buffer; the caller holds the lock.
void writeStderr(std::string_view bytes);

// Points standard error at the log file `path` (append mode, created 0600,
// never through a link). Once it has grown past `cap` bytes it is renamed to
// "<path>.1" and a fresh file is begun.
[[nodiscard]] Result<> sendStderrToLogFile(std::string_view path, std::uint64_t cap);

// Whether standard error gets colour escapes (decided once per process).
[[nodiscard]] bool stderrColour();

namespace log_detail {

// Out of line on purpose: log calls are many, and each would otherwise
// carry its own copy of the number formatting.
void writePiece(std::string_view text);
void writePiece(const char* text);
void writePiece(char c);
void writePiece(Error error);
void writePiece(ErrnoName name);
void writePiece(Hex hex);
void writeSigned(std::int64_t value);
void writeUnsigned(std::uint64_t value);
template <std::integral T>
requires(!std::same_as<T, char> && !std::same_as<T, bool>) void writePiece(T value) {
    if constexpr (std::is_signed_v<T>)
        writeSigned(value);
    else
        writeUnsigned(value);
}

void writeHead(LogLevel level, const LogScope* scope);

template <typename... Pieces> void logLine(LogLevel level, const Pieces&... pieces) {
    StderrLock lock;
    writeHead(level, nullptr);
    (writePiece(pieces), ...);
    writeStderr("\n");
}

template <typename... Pieces>
void logLine(LogLevel level, LogScope scope, const Pieces&... pieces) {
    StderrLock lock;
    writeHead(level, &scope);
    (writePiece(pieces), ...);
    writeStderr("\n");
}

} // namespace log_detail

// One log line: level word, optional scope tag (pass a LogScope first), ": ",
// the pieces in order, "\n".
template <typename... Pieces> void logError(const Pieces&... pieces) {
    log_detail::logLine(LogLevel::Error, pieces...);
}
template <typename... Pieces> void logWarning(const Pieces&... pieces) {
    log_detail::logLine(LogLevel::Warning, pieces...);
}
template <typename... Pieces> void logInfo(const Pieces&... pieces) {
    log_detail::logLine(LogLevel::Info, pieces...);
}

// A plain message on standard error: the pieces exactly as given (the caller
// writes the final "\n"), whole under the lock.
template <typename... Pieces> void printStderr(const Pieces&... pieces) {
    StderrLock lock;
    (log_detail::writePiece(pieces), ...);
}

} // namespace tovel
