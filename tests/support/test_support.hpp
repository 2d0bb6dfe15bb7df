// Helpers shared by the test suites: private temporary directories, running
// the built binary with a deadline, and waiting for a condition.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tovel::test {

// Path of the built tovel-ptyd binary.
inline const char* binaryPath() {
    return TOVEL_PTYD_BINARY;
}

// A short private directory under /tmp, removed with its contents.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }
    // Writes a file below the directory, creating parent folders.
    void writeFile(const std::string& relative, const std::string& content) const;

  private:
    std::string path_;
};

struct RunResult {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

struct RunOptions {
    std::map<std::string, std::optional<std::string>> env; // nullopt unsets
    std::string input;                                     // fed to standard input
    std::chrono::milliseconds deadline{10000};
};

// Runs the binary with `args`, collecting both streams; killed at the deadline.
RunResult runBinary(const std::vector<std::string>& args, const RunOptions& options = {});

// Polls `condition` every few milliseconds until it holds or the deadline passes.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));

} // namespace tovel::test
