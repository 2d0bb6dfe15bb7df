// The standard-error lock (a futex mutex with an owner and a hold count), its
// 64-byte buffer, the colour decision and the log line head.
#include "cli/log.hpp"

#include "platform/env.hpp"
#include "platform/process.hpp"
#include "platform/system.hpp"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace tovel {

namespace {

constexpr std::size_t kStderrBufferSize = 64;
constexpr mode_t kLogFileMode = 0600;

// 0 free, 1 held, 2 held with waiters.
std::atomic<int> lockWord{0};
std::atomic<pid_t> ownerTid{0};
int holdCount = 0; // only touched by the owner

char buffer[kStderrBufferSize];
std::size_t buffered = 0;
bool writeFailed = false; // drop the rest of the line after a write error

std::atomic<int> colourMode{-1};

// The keeper's log file behind standard error. Past its cap it is renamed to
// "<path>.1" (replacing the previous one) and begun afresh, so a keeper that
// lives for months keeps at most two files of bounded size.
struct LogFile {
    std::string path; // empty: standard error is not a capped file
    std::uint64_t size = 0;
    std::uint64_t cap = 0;
    pid_t owner = 0; // a forked child inherits the state but must not rotate
};
LogFile logFile;

Result<UniqueFd> openLogFile(std::string_view path) {
    return sys::open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, kLogFileMode);
}

// Called under the lock after a flush.
void rotateFullLogFile() {
    if (logFile.cap == 0 || logFile.size <= logFile.cap || sys::getpid() != logFile.owner)
        return;
    (void)sys::rename(logFile.path, logFile.path + ".1");
    // Should the fresh file fail to open, the lines go on into the renamed
    // one; the next attempt waits for another cap's worth.
    if (auto fresh = openLogFile(logFile.path))
        (void)sys::dup2(fresh->get(), STDERR_FILENO);
    logFile.size = 0;
}

pid_t currentTid() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

void futexWait(std::atomic<int>* word, int expected) {
    ::syscall(SYS_futex, reinterpret_cast<int*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr,
              nullptr, 0);
}

void futexWakeOne(std::atomic<int>* word) {
    ::syscall(SYS_futex, reinterpret_cast<int*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void flush() {
    std::size_t offset = 0;
    while (offset < buffered && !writeFailed) {
        auto written =
            sys::write(STDERR_FILENO, std::string_view(buffer + offset, buffered - offset));
        if (!written || *written == 0) {
            writeFailed = true;
            break;
        }
        offset += *written;
    }
    logFile.size += offset;
    buffered = 0;
}

constexpr std::string_view kReset = "\x1b[0m";
constexpr std::string_view kBold = "\x1b[1m";
constexpr std::string_view kDim = "\x1b[2m";

} // namespace

void lockStderr() {
    pid_t self = currentTid();
    if (ownerTid.load(std::memory_order_relaxed) == self) {
        ++holdCount;
        return;
    }
    int expected = 0;
    if (!lockWord.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
        if (expected != 2)
            expected = lockWord.exchange(2, std::memory_order_acquire);
        while (expected != 0) {
            futexWait(&lockWord, 2);
            expected = lockWord.exchange(2, std::memory_order_acquire);
        }
    }
    ownerTid.store(self, std::memory_order_relaxed);
    holdCount = 1;
    writeFailed = false;
}

void unlockStderr() {
    if (--holdCount > 0)
        return;
    flush();
    rotateFullLogFile();
    ownerTid.store(0, std::memory_order_relaxed);
    if (lockWord.exchange(0, std::memory_order_release) == 2)
        futexWakeOne(&lockWord);
}

void writeStderr(std::string_view bytes) {
    while (!bytes.empty() && !writeFailed) {
        if (buffered == kStderrBufferSize)
            flush();
        std::size_t take = std::min(bytes.size(), kStderrBufferSize - buffered);
        std::memcpy(buffer + buffered, bytes.data(), take);
        buffered += take;
        bytes.remove_prefix(take);
    }
}

Result<> sendStderrToLogFile(std::string_view path, std::uint64_t cap) {
    UniqueFd fd = TRY(openLogFile(path));
    struct stat st = TRY(sys::fstat(fd.get()));
    TRY(sys::dup2(fd.get(), STDERR_FILENO));
    StderrLock lock;
    logFile =
        LogFile{std::string(path), static_cast<std::uint64_t>(st.st_size), cap, sys::getpid()};
    return {};
}

bool stderrColour() {
    int mode = colourMode.load(std::memory_order_relaxed);
    if (mode < 0) {
        if (sys::getEnv("NO_COLOR"))
            mode = 0;
        else if (sys::isatty(STDERR_FILENO))
            mode = 1;
        else
            mode = sys::getEnv("CLICOLOR_FORCE") ? 1 : 0;
        colourMode.store(mode, std::memory_order_relaxed);
    }
    return mode == 1;
}

namespace log_detail {

void writePiece(std::string_view text) {
    writeStderr(text);
}

void writePiece(const char* text) {
    writeStderr(text);
}

void writePiece(char c) {
    writeStderr(std::string_view(&c, 1));
}

void writePiece(Error error) {
    writeStderr(errorName(error));
}

void writePiece(ErrnoName name) {
    writeStderr(errnoName(name.value));
}

void writePiece(Hex hex) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, hex.value, 16).ptr;
    writeStderr(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

void writeSigned(std::int64_t value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    writeStderr(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

void writeUnsigned(std::uint64_t value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    writeStderr(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

void writeHead(LogLevel level, const LogScope* scope) {
    std::string_view word = "error";
    std::string_view colour = "\x1b[31m";
    if (level == LogLevel::Warning) {
        word = "warning";
        colour = "\x1b[33m";
    } else if (level == LogLevel::Info) {
        word = "info";
        colour = "\x1b[32m";
    }
    bool colourOn = stderrColour();
    if (colourOn) {
        writeStderr(colour);
        writeStderr(kBold);
    }
    writeStderr(word);
    if (colourOn) {
        writeStderr(kReset);
        writeStderr(kDim);
        writeStderr(kBold);
    }
    if (scope != nullptr) {
        switch (*scope) {
        case LogScope::Keeper:
            writeStderr("(keeper)");
            break;
        case LogScope::Pty:
            writeStderr("(pty)");
            break;
        case LogScope::Serve:
            writeStderr("(ptyd_serve)");
            break;
        }
    }
    writeStderr(": ");
    if (colourOn)
        writeStderr(kReset);
}

} // namespace log_detail

} // namespace tovel
